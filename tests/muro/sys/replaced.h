#pragma once

/// A process-wide value that is another one for the length of a test.

namespace test {

/// Puts `value` into `target` and the old value back at the end of the scope. `Target` may be an
/// atomic of `Value`.
template <class Target, class Value>
class replaced {
 public:
  replaced(Target& target, Value value) : target_(target), before_(target) { target_ = value; }
  ~replaced() { target_ = before_; }
  replaced(const replaced&) = delete;
  replaced& operator=(const replaced&) = delete;

 private:
  Target& target_;
  Value before_;
};

template <class Target, class Value>
replaced(Target&, Value) -> replaced<Target, Value>;

}  // namespace test
