#include "platform/clock.h"

#include <time.h>

namespace platform {
namespace {

timespec monotonic() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

}  // namespace

long long monotonic_us() noexcept {
  const timespec now = monotonic();
  return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int make_condition(pthread_cond_t* condition) noexcept {
  pthread_condattr_t attributes;
  int error = ::pthread_condattr_init(&attributes);
  if (error != 0) return error;
  error = ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  if (error == 0) error = ::pthread_cond_init(condition, &attributes);
  ::pthread_condattr_destroy(&attributes);
  return error;
}

int wait_condition(pthread_cond_t* condition, pthread_mutex_t* mutex, long long wait_ms) {
  constexpr long kSecond_ns = 1000000000;
  timespec deadline = monotonic();
  deadline.tv_sec += wait_ms / 1000;
  deadline.tv_nsec += static_cast<long>(wait_ms % 1000) * 1000000;
  if (deadline.tv_nsec >= kSecond_ns) {
    deadline.tv_nsec -= kSecond_ns;
    ++deadline.tv_sec;
  }
  return ::pthread_cond_timedwait(condition, mutex, &deadline);
}

}  // namespace platform
