#include "platform/clock.h"

#include <mach/mach_time.h>
#include <time.h>

#include <algorithm>

namespace platform {

long long monotonic_us() noexcept {
  mach_timebase_info_data_t base{};
  ::mach_timebase_info(&base);
  const auto ticks = ::mach_absolute_time();
  // Divided before it is multiplied: the whole product would not fit on machines whose tick is
  // no nanosecond.
  const auto whole_ns = ticks / base.denom * base.numer;
  const auto rest_ns = ticks % base.denom * base.numer / base.denom;
  return static_cast<long long>((whole_ns + rest_ns) / 1000);
}

int make_condition(pthread_cond_t* condition) noexcept {
  return ::pthread_cond_init(condition, nullptr);
}

// The one wait that is measured from now, by the system's own monotonic clock (<pthread.h>).
int wait_condition(pthread_cond_t* condition, pthread_mutex_t* mutex, long long wait_ms) {
  constexpr long long kDay_ms =
      24LL * 60 * 60 * 1000;  // the kernel counts in fewer bits than we do
  const long long ms = std::min(wait_ms, kDay_ms);
  timespec wait;
  wait.tv_sec = static_cast<time_t>(ms / 1000);
  wait.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
  return ::pthread_cond_timedwait_relative_np(condition, mutex, &wait);
}

}  // namespace platform
