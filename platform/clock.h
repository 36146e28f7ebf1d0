#pragma once

/// The seam's clock for waits. The wall clock may be set while somebody waits, by its owner, by the
/// network or for a time zone that was wrong; a wait measured by it would then end at once or not
/// at all. This one only counts up, at the rate of time, and stands still while the machine sleeps.
///
/// A condition variable is bound to a clock where it is made or where it is waited for, depending on
/// the system, so both steps are here.

#include <pthread.h>

namespace platform {

/// Microseconds since some moment before the process began: CLOCK_MONOTONIC of clock_gettime(2) on
/// Linux, mach_absolute_time on macOS. Never goes back, never fails, may be called anywhere, in a
/// signal handler too.
long long monotonic_us() noexcept;

/// Makes a condition for `wait_condition`. 0, or the error number of pthread_cond_init(3).
int make_condition(pthread_cond_t* condition) noexcept;

/// Waits, with `mutex` held, for a condition that `make_condition` has made: until it is signalled,
/// or for `wait_ms` milliseconds of the clock above. 0 when woken, perhaps in vain; ETIMEDOUT when
/// the time is over; else another error number of pthread_cond_timedwait(3). A wait of more than a
/// day may be over after one, so the caller looks at the clock and waits again.
int wait_condition(pthread_cond_t* condition, pthread_mutex_t* mutex, long long wait_ms);

}  // namespace platform
