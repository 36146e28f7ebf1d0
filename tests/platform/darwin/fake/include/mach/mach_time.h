#pragma once

/// The part of macOS's <mach/mach_time.h> that the seam uses.

#include <stdint.h>

struct mach_timebase_info_data_t {
  uint32_t numer;
  uint32_t denom;
};

extern "C" int mach_timebase_info(mach_timebase_info_data_t* info);
extern "C" uint64_t mach_absolute_time(void);
