#pragma once

/// The operators new of the test program, which fail on request, and the loop over an operation's
/// allocations.

#include <functional>

namespace test {

/// What is short: one allocation only, or every one from there on.
enum class shortage { once, lasting };

/// One look at an operation for which memory runs out.
struct trial {
  std::function<void()> prepare;    ///< before each run; may be empty
  std::function<void()> operation;  ///< may throw, report a failure in its own way, or bear it
  std::function<void()> intact;     ///< after each run in which an allocation failed; may be empty
};

/// Runs the operation on this thread with its first, second, ... allocation failing (and with
/// `lasting` all behind it), until it has run without any of them failing. Gives the number of
/// failures.
int fail_each_allocation(shortage kind, const trial& what);

/// The same for both kinds; expects that something failed at all.
void expect_survival(const trial& what);

/// While it lives, every allocation of this thread fails.
class no_memory {
 public:
  no_memory();
  ~no_memory();
  no_memory(const no_memory&) = delete;
  no_memory& operator=(const no_memory&) = delete;
};

/// While it lives, allocations of every other thread fail, every `nth` of them.
class others_short_of_memory {
 public:
  explicit others_short_of_memory(int nth);
  ~others_short_of_memory();
  others_short_of_memory(const others_short_of_memory&) = delete;
  others_short_of_memory& operator=(const others_short_of_memory&) = delete;

  /// How many have failed so far.
  int failures() const;
};

}  // namespace test
