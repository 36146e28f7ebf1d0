#pragma once

/// Clocks in milliseconds and seconds, `timespec` arithmetic, pauses.
///
/// There are three clocks. The relative one counts from the runtime's start and never goes
/// backwards. The absolute one counts from the Unix epoch and follows the system's wall clock: time
/// stamps use it. A host replaces either through the hooks `x_relative_time`, `x_absolute_time` and
/// `x_absolute_system_time` of muro/core/hooks.h. Waits are measured by a third, `wait_clock_us`:
/// the relative clock is the wall clock in disguise on systems whose `times` follows it (macOS).
///
/// Everything here may be called from any thread and at any time, also before `init_timer`: the
/// state is made at first use and never destroyed.

#include <time.h>

#include "muro/core/hooks.h"

namespace muro {

class rec_mutex;

/// Whether `clock_monotonic` works. False: no supported system is asked for its monotonic clock,
/// so the relative clock counts the ticks of `times`.
extern bool g_has_monotonic;

/// Milliseconds since the timer was made (near 0 at the start), or what the host's hook answers.
/// Its grain is the clock tick (`sysconf(_SC_CLK_TCK)`, 10 ms as a rule); two calls in one tick
/// give the same value.
long long relative_time();
/// `relative_time()` in whole seconds, rounded towards zero.
long long relative_time_t();

/// Milliseconds since the Unix epoch by the system's wall clock, or what the host's hook answers.
/// Throws like `clock_realtime`.
long long absolute_system_time();
/// Milliseconds since the Unix epoch: `absolute_system_time()`, unless `set_absolute_clock` chose
/// the relative clock plus an offset; or what the host's hook answers.
long long absolute_time();
/// `absolute_time()` in whole seconds, rounded towards zero.
long long absolute_time_t();

/// For hosts: with `follow_system_clock` false, `absolute_time` becomes `relative_time()` plus
/// `offset_ms` and no longer jumps when the wall clock is set. The start values are true and 0.
void set_absolute_clock(bool follow_system_clock, long long offset_ms);

/// The wall clock, in whole microseconds (`gettimeofday`). Throws ":Error in 'clock_realtime'".
void clock_realtime(timespec& ts);
/// Deliberate: always throws ":Error in 'clock_monotonic'"; the oldest supported systems have no
/// such clock, and one road for all is the one that is tested.
void clock_monotonic(timespec& ts);

/// Moves `ts` by `ms`. Nanoseconds that reach a second are carried. Deliberate: a negative `ms` is
/// not normalised, `tv_nsec` may come out negative.
void add_ms(timespec& ts, long long ms);
/// `ts` as nanoseconds.
long long get_ns(const timespec& ts);
/// `ns` as milliseconds, rounded towards zero.
long long get_ms_from_ns(long long ns);

/// Microseconds of the clock that all waits with a limit are measured by: the system's monotonic
/// one (platform/clock.h), which nobody can set, or 1000 times the host's `x_relative_time` when
/// there is one. Counts from no moment in particular; only differences mean something.
long long wait_clock_us();

/// The limit of one wait, which begins as the object is made. However often the wait is broken off
/// and begun again, all its pieces together have `limit_ms`. Belongs to one thread.
class time_limit {
 public:
  /// Over from the start; asks no clock.
  time_limit() = default;
  /// 0 or less leaves no time. Throws what a host's clock throws.
  explicit time_limit(long long limit_ms) : limit_ms_(limit_ms), start_us_(wait_clock_us()) {}

  /// What is left, rounded up to whole milliseconds, so that a wait of that length never ends
  /// early; 0 when the limit is over. A clock of the host's that goes back makes no time.
  long long left_ms() const;

 private:
  long long limit_ms_ = 0;
  long long start_us_ = 0;
};

/// Makes the timer state unless an earlier use of a clock has: the relative clock counts from the
/// first of the two, and a second call does not set it back.
void init_timer();
/// Reads the time zone (`tzset`). `g_has_monotonic` stays false.
void init_unixtime();

/// The one lock for a host's task scheduler, made at the first call. Never null, never destroyed.
/// Throws ":Error in 'rec_mutex'" when it cannot be made.
rec_mutex* task_lock();

/// Pauses the calling thread for at least that many microseconds, signals or not; through
/// `x_pause_us` when that hook is set. Every fixed pause of the program goes through here.
/// Keeps `errno`.
void pause_us(unsigned long long microseconds);

}  // namespace muro
