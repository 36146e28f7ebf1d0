#include <mach/mach_time.h>

#include "client/clock.h"

// clock_gettime came with 10.12; this call is in every release.
long long korvel_rnr_clock_ms(void) {
  mach_timebase_info_data_t unit;
  mach_timebase_info(&unit);
  const unsigned long long ns = mach_absolute_time() / unit.denom * unit.numer;
  return (long long)(ns / 1000000);
}
