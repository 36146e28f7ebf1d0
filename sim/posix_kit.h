#pragma once

/// Small owners and the one way to turn a failed system call into a failure of the launcher.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace macroot {

/// Setting up a root failed; the text is one line for a person, without a full stop.
class failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws a `failure` for the call `what` that has just failed; reads errno first.
[[noreturn]] inline void throw_errno(const std::string& what) {
  const int error = errno;
  throw failure(what + ": " + std::strerror(error));
}

/// The result of a call that gives -1 on failure.
template <typename Number>
Number check(Number result, const std::string& what) {
  if (result < 0) throw_errno(what);
  return result;
}

/// Owns a descriptor; -1 when empty. Closing keeps errno.
class unique_fd {
 public:
  explicit unique_fd(int fd = -1) : fd_(fd) {}
  unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  void reset() {
    const int error = errno;
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    errno = error;
  }

 private:
  int fd_;
};

}  // namespace macroot
