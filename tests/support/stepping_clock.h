#pragma once

/// A wall clock that somebody sets over and over.

#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>

#include "muro/sys/time_internal.h"

namespace test {

/// While it lives, the time of day and the clock ticks, which follow it on some systems, leap by
/// `step_s` seconds at every look.
class stepping_clock {
 public:
  explicit stepping_clock(long step_s) {
    step_s_ = step_s;
    offset_s_ = 0;
    muro::detail::g_time_of_day = [](timeval* now) {
      const int result = ::gettimeofday(now, nullptr);
      now->tv_sec += offset_s_ += step_s_;
      return result;
    };
    muro::detail::g_tick_source = [] {
      tms unused;
      return ::times(&unused) + (offset_s_ += step_s_) * ::sysconf(_SC_CLK_TCK);
    };
  }
  ~stepping_clock() {
    muro::detail::g_time_of_day = time_of_day_before_;
    muro::detail::g_tick_source = ticks_before_;
  }
  stepping_clock(const stepping_clock&) = delete;
  stepping_clock& operator=(const stepping_clock&) = delete;

 private:
  static inline std::atomic<long> step_s_{0};
  static inline std::atomic<long> offset_s_{0};

  int (*time_of_day_before_)(timeval*) = muro::detail::g_time_of_day;
  clock_t (*ticks_before_)() = muro::detail::g_tick_source;
};

}  // namespace test
