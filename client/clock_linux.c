#define _POSIX_C_SOURCE 200809L

#include <time.h>

#include "client/clock.h"

long long korvel_rnr_clock_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}
