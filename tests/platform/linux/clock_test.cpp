#include "platform/clock.h"

#include <gtest/gtest.h>

namespace {

// What glibc keeps of the clock that a condition was made for: the second bit of this word
// (<bits/thread-shared-types.h>). Only a wall clock that is set would show it from outside.
bool waits_by_the_monotonic_clock(const pthread_cond_t& condition) {
  return (condition.__data.__wrefs & 2U) != 0;
}

TEST(condition, is_bound_to_the_clock_that_nobody_sets) {
  pthread_cond_t usual = PTHREAD_COND_INITIALIZER;
  EXPECT_FALSE(waits_by_the_monotonic_clock(usual));
  pthread_cond_t condition;
  ASSERT_EQ(platform::make_condition(&condition), 0);
  EXPECT_TRUE(waits_by_the_monotonic_clock(condition));
  ::pthread_cond_destroy(&condition);
}

}  // namespace
