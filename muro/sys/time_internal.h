#pragma once

/// The inner side of muro/sys/time.h, for time.cpp and its tests alone.

#include <sys/time.h>
#include <time.h>

#include <atomic>

namespace muro::detail {

/// Milliseconds counted from clock ticks. Not locked: the owner guards it.
class tick_clock {
 public:
  /// Starts at 0 ms with `first` as the last tick value seen. A tick rate below 1 (the system
  /// could not tell) counts as 100, the rate of every supported system.
  tick_clock(long ticks_per_second, clock_t first);

  /// Takes the tick value `now` and returns the milliseconds counted so far. A value below the
  /// last one (a system whose ticks follow a wall clock that was set back) counts as no time; the
  /// failure value of `times`, `(clock_t)-1`, is passed over.
  long long advance(clock_t now);

 private:
  long ticks_per_second_;
  clock_t last_;
  long long accumulated_ms_ = 0;
};

/// Where ticks, the wall-clock time and the time of waits come from: `times`, `gettimeofday` and
/// `platform::monotonic_us`. Tests replace them.
extern std::atomic<clock_t (*)()> g_tick_source;
extern std::atomic<int (*)(timeval*)> g_time_of_day;
extern std::atomic<long long (*)() noexcept> g_monotonic_us;

}  // namespace muro::detail
