#pragma once

/// The clock of the fake Mac: the real time, unless a test stops it.

#include <cstdint>

namespace fake {

/// What one tick is, in nanoseconds, as a fraction.
inline std::uint32_t tick_numer = 1;
inline std::uint32_t tick_denom = 1;

/// The ticks that the clock shows; 0: the real time.
inline std::uint64_t stopped_at = 0;

/// Whether waits are over at once.
inline bool waits_are_over = false;

/// Nanoseconds that the last wait was told to last.
inline long long last_wait_ns = 0;

}  // namespace fake
