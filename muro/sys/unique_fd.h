#pragma once

/// The owner of one file descriptor.

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace muro {

/// Owns a descriptor from the call that made it and closes it once. Moving leaves -1 behind. There
/// is no conversion to int or bool, so that no descriptor is copied or tested by accident.
class unique_fd {
 public:
  /// Takes `fd` over; a negative number, as failed calls return it, owns nothing.
  explicit unique_fd(int fd = -1) noexcept : fd_(fd) {}
  ~unique_fd() { reset(); }
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;

  int get() const noexcept { return fd_; }
  bool is_open() const noexcept { return fd_ >= 0; }
  /// Gives the descriptor up without closing it.
  int release() noexcept { return std::exchange(fd_, -1); }

  /// Closes what is owned and owns `fd`. Keeps errno. close(2) is not retried on EINTR: the number
  /// is free by then and may already be another thread's.
  void reset(int fd = -1) noexcept {
    const int closing = std::exchange(fd_, fd);
    if (closing < 0) return;
    const int kept = errno;
    ::close(closing);
    errno = kept;
  }

 private:
  int fd_;
};

}  // namespace muro
