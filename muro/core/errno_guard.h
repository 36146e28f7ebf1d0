#pragma once

/// Keeps errno over a scope. Log lines in catch handlers print the system's error text after
/// unwinding has run destructors, so whatever runs between a failed call and such a line must
/// leave errno as it found it.

#include <cerrno>

namespace muro {

/// Remembers errno at construction and puts it back in the destructor. One thread (errno is each
/// thread's own); never throws, allocates nothing.
class errno_guard {
 public:
  errno_guard() noexcept : saved_(errno) {}
  ~errno_guard() { errno = saved_; }
  errno_guard(const errno_guard&) = delete;
  errno_guard& operator=(const errno_guard&) = delete;

  /// The value at construction.
  int value() const noexcept { return saved_; }

 private:
  int saved_;
};

}  // namespace muro
