#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include "platform/clock.h"
#include "tests/platform/darwin/fake/clock.h"

namespace {

class mach_clock : public ::testing::Test {
 protected:
  ~mach_clock() override {
    fake::tick_numer = fake::tick_denom = 1;
    fake::stopped_at = 0;
  }

  static long long at(std::uint64_t ticks) {
    fake::stopped_at = ticks;
    return platform::monotonic_us();
  }
};

TEST_F(mach_clock, ticks_are_nanoseconds_on_most_machines) {
  EXPECT_EQ(at(1999), 1);
  EXPECT_EQ(at(2000), 2);
}

TEST_F(mach_clock, ticks_of_another_length_are_converted) {
  fake::tick_numer = 125;
  fake::tick_denom = 3;
  EXPECT_EQ(at(24), 1);
  EXPECT_EQ(at(24000000), 1000000);
  EXPECT_EQ(at(25), 1);
}

// 400 days in ticks of 125/3 ns; their product with 125 still fits, with a numerator beside a
// thousand million, as some machines have it, it would not.
TEST_F(mach_clock, long_uptimes_do_not_wrap) {
  fake::tick_numer = 1000000000;
  fake::tick_denom = 33333335;
  const std::uint64_t year_ticks = 33333335ULL * 400 * 24 * 60 * 60;
  EXPECT_EQ(at(year_ticks), 400LL * 24 * 60 * 60 * 1000000);
}

TEST(mach_condition, waits_in_pieces_of_a_day_at_most) {
  pthread_cond_t condition;
  ASSERT_EQ(platform::make_condition(&condition), 0);
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  fake::waits_are_over = true;
  EXPECT_EQ(platform::wait_condition(&condition, &mutex, 1012), ETIMEDOUT);
  EXPECT_EQ(fake::last_wait_ns, 1012000000);
  platform::wait_condition(&condition, &mutex, std::numeric_limits<long long>::max());
  EXPECT_EQ(fake::last_wait_ns, 24LL * 60 * 60 * 1000000000);
  fake::waits_are_over = false;
  ::pthread_cond_destroy(&condition);
}

}  // namespace
