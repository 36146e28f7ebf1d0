#pragma once

/// The owner of one descriptor, for the folders beside this one.

#include <unistd.h>

#include <cerrno>

namespace platform {

/// Owns a descriptor; closing keeps errno, for the failure that is about to be told.
class descriptor {
 public:
  /// Takes `number` over; a negative one, as failed calls return it, owns nothing.
  explicit descriptor(int number = -1) noexcept : number_(number) {}
  ~descriptor() { reset(); }
  descriptor(descriptor&& other) noexcept : number_(other.release()) {}
  descriptor& operator=(descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      number_ = other.release();
    }
    return *this;
  }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;

  int get() const noexcept { return number_; }
  bool is_open() const noexcept { return number_ >= 0; }

  /// Gives the descriptor up without closing it.
  int release() noexcept {
    const int number = number_;
    number_ = -1;
    return number;
  }

  /// Closes now and tells whether the kernel had kept a write error back.
  bool close() noexcept { return ::close(release()) == 0; }

 private:
  void reset() noexcept {
    const int kept = errno;
    if (number_ >= 0) ::close(number_);
    number_ = -1;
    errno = kept;
  }

  int number_;
};

}  // namespace platform
