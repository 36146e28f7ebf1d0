#include "platform/clock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "tests/support/stopwatch.h"

namespace {

/// A condition of the platform's with its mutex, which is held throughout.
class condition : public ::testing::Test {
 protected:
  condition() {
    EXPECT_EQ(platform::make_condition(&condition_), 0);
    ::pthread_mutex_lock(&mutex_);
  }
  ~condition() override {
    ::pthread_mutex_unlock(&mutex_);
    ::pthread_cond_destroy(&condition_);
  }
  int wait(long long ms) { return platform::wait_condition(&condition_, &mutex_, ms); }

  pthread_cond_t condition_;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

TEST(monotonic_us, counts_microseconds_of_real_time) {
  const test::stopwatch watch;
  const long long before = platform::monotonic_us();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const long long passed = platform::monotonic_us() - before;
  EXPECT_GE(passed, 20000);
  EXPECT_LE(passed, (watch.ms() + 1) * 1000);
}

TEST(monotonic_us, never_goes_back) {
  long long last = platform::monotonic_us();
  for (int i = 0; i < 10000; ++i) {
    const long long now = platform::monotonic_us();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST_F(condition, wait_ends_when_its_time_is_over_and_not_before) {
  for (const long long ms : {1LL, 50LL, 1001LL}) {
    const test::stopwatch watch;
    EXPECT_EQ(wait(ms), ETIMEDOUT);
    EXPECT_GE(watch.ms(), ms);
    EXPECT_LT(watch.ms(), ms + 10000);
  }
}

TEST_F(condition, wait_without_time_is_over) {
  EXPECT_EQ(wait(0), ETIMEDOUT);
}

TEST_F(condition, wait_ends_when_it_is_signalled) {
  bool signalled = false;
  std::thread other([&] {
    ::pthread_mutex_lock(&mutex_);
    signalled = true;
    ::pthread_cond_signal(&condition_);
    ::pthread_mutex_unlock(&mutex_);
  });
  while (!signalled) EXPECT_EQ(wait(60000), 0);
  other.join();
}

TEST_F(condition, longest_wait_is_a_wait) {
  bool signalled = false;
  std::thread other([&] {
    ::pthread_mutex_lock(&mutex_);
    signalled = true;
    ::pthread_cond_signal(&condition_);
    ::pthread_mutex_unlock(&mutex_);
  });
  while (!signalled) EXPECT_EQ(wait(0x7fffffffffffffffLL), 0);
  other.join();
}

}  // namespace
