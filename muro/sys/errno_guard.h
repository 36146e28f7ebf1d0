#pragma once

/// Keeps `errno` across clean-up code.

#include <cerrno>

namespace muro {

/// Takes `errno` when made and puts it back when destroyed, also while an exception unwinds. A
/// function that fails holds one from the failed call on, and every destructor that makes calls of
/// its own holds one, so that a catch handler can still log `system_error_string()` and name the
/// call that failed.
class errno_guard {
 public:
  errno_guard() noexcept : saved_(errno) {}
  ~errno_guard() { errno = saved_; }
  errno_guard(const errno_guard&) = delete;
  errno_guard& operator=(const errno_guard&) = delete;

  int value() const { return saved_; }

 private:
  int saved_;
};

}  // namespace muro
