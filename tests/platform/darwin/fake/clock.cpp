#include "tests/platform/darwin/fake/clock.h"

#include <mach/mach_time.h>
#include <time.h>

#include <cerrno>

#include "tests/platform/darwin/fake/include/mac_pthread.h"

namespace {

long long real_ns() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

}  // namespace

extern "C" {

int mach_timebase_info(mach_timebase_info_data_t* info) {
  *info = {fake::tick_numer, fake::tick_denom};
  return 0;
}

uint64_t mach_absolute_time(void) {
  return fake::stopped_at != 0 ? fake::stopped_at : static_cast<uint64_t>(real_ns());
}

int pthread_cond_timedwait_relative_np(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                       const struct timespec* wait) {
  fake::last_wait_ns = static_cast<long long>(wait->tv_sec) * 1000000000 + wait->tv_nsec;
  if (fake::waits_are_over) return ETIMEDOUT;
  const long long end_ns = real_ns() + fake::last_wait_ns;
  const timespec end{static_cast<time_t>(end_ns / 1000000000),
                     static_cast<long>(end_ns % 1000000000)};
  return ::pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &end);
}
}
