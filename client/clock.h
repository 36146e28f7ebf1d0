#pragma once

/// Milliseconds of a clock that only runs forward and that nobody sets; its zero is arbitrary. One
/// source a system (client/clock_*.c).
long long korvel_rnr_clock_ms(void);
