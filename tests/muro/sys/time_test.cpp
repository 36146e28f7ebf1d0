#include "muro/sys/time.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <thread>
#include <vector>

#include "muro/core/exception.h"
#include "muro/sys/thread.h"
#include "muro/sys/time_internal.h"
#include "tests/muro/sys/replaced.h"
#include "tests/support/stepping_clock.h"

namespace {

using muro::detail::tick_clock;
using test::replaced;

template <class Action>
std::string thrown(Action action) {
  try {
    action();
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "";
}

/// Ticks that stand still until a test moves them, from the system's present value on.
class fake_ticks {
 public:
  fake_ticks() : source_(muro::detail::g_tick_source, next) {
    tms unused;
    now = ::times(&unused);
    asked = 0;
  }

  static inline clock_t now = 0;
  static inline int asked = 0;

 private:
  static clock_t next() {
    ++asked;
    return now;
  }

  replaced<std::atomic<clock_t (*)()>, clock_t (*)()> source_;
};

/// A wall clock that shows one time.
class fake_wall_clock {
 public:
  fake_wall_clock(time_t seconds, suseconds_t microseconds)
      : source_(muro::detail::g_time_of_day, read) {
    shown = {seconds, microseconds};
  }

 private:
  static inline timeval shown{};
  static int read(timeval* out) {
    *out = shown;
    return 0;
  }

  replaced<std::atomic<int (*)(timeval*)>, int (*)(timeval*)> source_;
};

using clock_hook = long long (*)();

/// The absolute clock as it is at the start.
class absolute_clock : public ::testing::Test {
 protected:
  void TearDown() override { muro::set_absolute_clock(true, 0); }
};

timespec at(time_t seconds, long nanoseconds) {
  return {seconds, nanoseconds};
}

timespec sum(timespec ts, long long ms) {
  muro::add_ms(ts, ms);
  return ts;
}

}  // namespace

static bool operator==(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

TEST(tick_clock, starts_at_0_and_counts_milliseconds) {
  tick_clock clock(100, 5000);
  EXPECT_EQ(clock.advance(5000), 0);
  EXPECT_EQ(clock.advance(5001), 10);
  EXPECT_EQ(clock.advance(5101), 1010);
}

TEST(tick_clock, gives_the_same_value_within_a_tick) {
  tick_clock clock(100, 7);
  EXPECT_EQ(clock.advance(9), 20);
  EXPECT_EQ(clock.advance(9), 20);
}

TEST(tick_clock, drops_the_rest_below_a_millisecond_at_each_call) {
  tick_clock thirds(3, 0);
  EXPECT_EQ(thirds.advance(1), 333);
  EXPECT_EQ(thirds.advance(2), 666);
  EXPECT_EQ(thirds.advance(3), 999);
  tick_clock fine(1024, 0);
  for (clock_t tick = 1; tick < 1024; ++tick) EXPECT_EQ(fine.advance(tick), 0);
  EXPECT_EQ(tick_clock(1024, 0).advance(1024), 1000);
}

TEST(tick_clock, never_goes_backwards) {
  tick_clock clock(100, 1000);
  EXPECT_EQ(clock.advance(1010), 100);
  EXPECT_EQ(clock.advance(990), 100);
  EXPECT_EQ(clock.advance(995), 150);
}

TEST(tick_clock, passes_over_a_failed_reading) {
  tick_clock clock(100, 1000);
  EXPECT_EQ(clock.advance(1010), 100);
  EXPECT_EQ(clock.advance(static_cast<clock_t>(-1)), 100);
  EXPECT_EQ(clock.advance(1020), 200);
}

TEST(tick_clock, that_could_not_be_read_at_the_start_starts_at_the_first_reading) {
  tick_clock clock(100, static_cast<clock_t>(-1));
  EXPECT_EQ(clock.advance(100000), 0);
  EXPECT_EQ(clock.advance(100001), 10);
}

TEST(tick_clock, takes_an_unknown_rate_for_100) {
  EXPECT_EQ(tick_clock(0, 0).advance(1), 10);
  EXPECT_EQ(tick_clock(-1, 0).advance(1), 10);
}

TEST(relative_time, counts_the_systems_ticks) {
  const long rate = ::sysconf(_SC_CLK_TCK);
  fake_ticks ticks;
  const long long before = muro::relative_time();
  fake_ticks::now += 3;
  EXPECT_EQ(muro::relative_time() - before, 3000 / rate);
}

TEST(relative_time, stays_the_same_within_a_tick) {
  muro::init_timer();  // which asks once, if nothing has started the timer before
  fake_ticks ticks;
  const long long before = muro::relative_time();
  EXPECT_EQ(muro::relative_time(), before);
  EXPECT_EQ(fake_ticks::asked, 2);
}

TEST(relative_time, starts_at_0_with_init_timer) {
  // In a process of its own, where no clock has been used.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto first_reading = [] {
    muro::detail::g_tick_source = [] { return clock_t{123456789}; };
    muro::init_timer();
    std::_Exit(muro::relative_time() == 0 ? 0 : 1);
  };
  EXPECT_EXIT(first_reading(), ::testing::ExitedWithCode(0), "");
}

TEST(relative_time, counts_from_init_timer_and_not_from_its_first_reading) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto second_later = [] {
    muro::detail::g_tick_source = [] { return clock_t{1000}; };
    muro::init_timer();
    muro::detail::g_tick_source = [] { return 1000 + clock_t{::sysconf(_SC_CLK_TCK)}; };
    std::_Exit(muro::relative_time() == 1000 ? 0 : 1);
  };
  EXPECT_EXIT(second_later(), ::testing::ExitedWithCode(0), "");
}

TEST(relative_time, is_not_set_back_by_another_init_timer) {
  fake_ticks ticks;
  fake_ticks::now += 100;
  const long long before = muro::relative_time();
  muro::init_timer();
  EXPECT_EQ(muro::relative_time(), before);
}

TEST(relative_time, does_not_go_backwards_on_any_thread) {
  std::vector<std::thread> readers;
  std::atomic<int> backwards{0};
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      long long last = 0;
      for (int n = 0; n < 2000; ++n) {
        const long long now = muro::relative_time();
        if (now < last) ++backwards;
        last = now;
      }
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(backwards, 0);
}

TEST(relative_time, is_the_hosts_when_there_is_one) {
  const replaced hook(muro::x_relative_time, clock_hook([] { return 42LL; }));
  EXPECT_EQ(muro::relative_time(), 42);
}

TEST(relative_time_t, rounds_towards_zero) {
  const replaced hook(muro::x_relative_time, clock_hook([] { return 2999LL; }));
  EXPECT_EQ(muro::relative_time_t(), 2);
  muro::x_relative_time = [] { return -2999LL; };
  EXPECT_EQ(muro::relative_time_t(), -2);
}

TEST_F(absolute_clock, absolute_system_time_is_the_wall_clock_in_milliseconds) {
  const fake_wall_clock wall(12, 345999);
  EXPECT_EQ(muro::absolute_system_time(), 12345);
}

TEST_F(absolute_clock, absolute_system_time_agrees_with_the_system) {
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const long long before = now();
  const long long told = muro::absolute_system_time();
  EXPECT_LE(before, told);
  EXPECT_LE(told, now());
}

TEST_F(absolute_clock, absolute_system_time_keeps_the_tick_count_current) {
  muro::init_timer();
  fake_ticks ticks;
  muro::absolute_system_time();
  EXPECT_EQ(fake_ticks::asked, 1);
}

TEST_F(absolute_clock, absolute_system_time_leaves_the_ticks_alone_with_a_monotonic_clock) {
  fake_ticks ticks;
  const replaced flag(muro::g_has_monotonic, true);
  muro::absolute_system_time();
  EXPECT_EQ(fake_ticks::asked, 0);
}

TEST_F(absolute_clock, absolute_system_time_is_the_hosts_when_there_is_one) {
  const replaced hook(muro::x_absolute_system_time, clock_hook([] { return 77LL; }));
  EXPECT_EQ(muro::absolute_system_time(), 77);
  EXPECT_EQ(muro::absolute_time(), 77);
}

TEST_F(absolute_clock, absolute_time_follows_the_wall_clock) {
  const fake_wall_clock wall(100, 0);
  EXPECT_EQ(muro::absolute_time(), 100000);
}

TEST_F(absolute_clock, absolute_time_can_follow_the_relative_clock_with_an_offset) {
  const replaced hook(muro::x_relative_time, clock_hook([] { return 42LL; }));
  muro::set_absolute_clock(false, 5000);
  EXPECT_EQ(muro::absolute_time(), 5042);
}

TEST_F(absolute_clock, absolute_time_is_the_hosts_when_there_is_one) {
  const replaced hook(muro::x_absolute_time, clock_hook([] { return 99999LL; }));
  EXPECT_EQ(muro::absolute_time(), 99999);
  EXPECT_EQ(muro::absolute_time_t(), 99);
}

TEST_F(absolute_clock, absolute_time_t_rounds_towards_zero) {
  const replaced hook(muro::x_absolute_time, clock_hook([] { return -1999LL; }));
  EXPECT_EQ(muro::absolute_time_t(), -1);
}

TEST(clock_realtime, has_whole_microseconds_as_nanoseconds) {
  const fake_wall_clock wall(7, 999999);
  timespec ts{};
  muro::clock_realtime(ts);
  EXPECT_EQ(ts, at(7, 999999000));
}

TEST(clock_realtime, fails_by_its_own_name) {
  const replaced source(
      muro::detail::g_time_of_day, +[](timeval*) { return -1; });
  timespec ts{};
  EXPECT_EQ(thrown([&] { muro::clock_realtime(ts); }), ":Error in 'clock_realtime'");
}

TEST(clock_monotonic, always_fails) {
  timespec ts{};
  EXPECT_EQ(thrown([&] { muro::clock_monotonic(ts); }), ":Error in 'clock_monotonic'");
}

TEST(add_ms, carries_nanoseconds_into_seconds) {
  EXPECT_EQ(sum(at(10, 600000000), 1500), at(12, 100000000));
  EXPECT_EQ(sum(at(10, 600000000), 400), at(11, 0));
  EXPECT_EQ(sum(at(10, 600000000), 399), at(10, 999000000));
  EXPECT_EQ(sum(at(10, 999999999), 999), at(11, 998999999));
  EXPECT_EQ(sum(at(10, 0), 0), at(10, 0));
  EXPECT_EQ(sum(at(0, 0), 86400000), at(86400, 0));
}

TEST(add_ms, brings_too_many_nanoseconds_back_below_a_second) {
  EXPECT_EQ(sum(at(1, 3500000000), 1), at(4, 501000000));
}

TEST(add_ms, does_not_normalise_a_negative_span) {
  EXPECT_EQ(sum(at(10, 100000000), -1500), at(9, -400000000));
  EXPECT_EQ(sum(at(10, 600000000), -500), at(10, 100000000));
}

TEST(get_ns, joins_seconds_and_nanoseconds) {
  EXPECT_EQ(muro::get_ns(at(3, 7)), 3000000007);
  EXPECT_EQ(muro::get_ns(at(-1, 0)), -1000000000);
}

TEST(get_ms_from_ns, rounds_towards_zero) {
  EXPECT_EQ(muro::get_ms_from_ns(1999999), 1);
  EXPECT_EQ(muro::get_ms_from_ns(2000000), 2);
  EXPECT_EQ(muro::get_ms_from_ns(-1999999), -1);
}

TEST(wait_clock, does_not_follow_a_wall_clock_that_is_set) {
  const test::stepping_clock clock(3600);
  const long long before = muro::wait_clock_us();
  const long long passed = muro::wait_clock_us() - before;
  EXPECT_GE(passed, 0);
  EXPECT_LT(passed, 60LL * 1000 * 1000);
}

TEST(wait_clock, is_the_hosts_relative_clock_when_there_is_one) {
  const replaced hook(
      muro::x_relative_time, +[] { return 12LL; });
  EXPECT_EQ(muro::wait_clock_us(), 12000);
}

namespace {

long long g_wait_clock_us;

/// A clock of waits that stands still until a test moves it.
class fake_wait_clock {
 public:
  fake_wait_clock() { g_wait_clock_us = 10999; }

 private:
  replaced<std::atomic<long long (*)() noexcept>, long long (*)() noexcept> source_{
      muro::detail::g_monotonic_us, []() noexcept { return g_wait_clock_us; }};
};

}  // namespace

TEST(time_limit, rounds_what_is_left_up) {
  const fake_wait_clock clock;
  const muro::time_limit limit(3);
  EXPECT_EQ(limit.left_ms(), 3);
  g_wait_clock_us += 999;
  EXPECT_EQ(limit.left_ms(), 3);
  g_wait_clock_us += 2000;
  EXPECT_EQ(limit.left_ms(), 1);
  g_wait_clock_us += 1;
  EXPECT_EQ(limit.left_ms(), 0);
  g_wait_clock_us += 1000000;
  EXPECT_EQ(limit.left_ms(), 0);
}

TEST(time_limit, gains_nothing_from_a_clock_that_goes_back) {
  const fake_wait_clock clock;
  const muro::time_limit limit(3);
  g_wait_clock_us = -1000000;
  EXPECT_EQ(limit.left_ms(), 3);
}

TEST(time_limit, of_no_time_is_over_and_the_longest_does_not_wrap) {
  constexpr long long kLongest = std::numeric_limits<long long>::max();
  EXPECT_EQ(muro::time_limit().left_ms(), 0);
  EXPECT_EQ(muro::time_limit(0).left_ms(), 0);
  EXPECT_EQ(muro::time_limit(-kLongest).left_ms(), 0);
  EXPECT_GT(muro::time_limit(kLongest).left_ms(), kLongest - 1000000);
}

TEST(init_unixtime, reads_the_time_zone_and_finds_no_monotonic_clock) {
  ASSERT_EQ(::setenv("TZ", "XYZ-3", 1), 0);
  muro::init_unixtime();
  EXPECT_STREQ(::tzname[0], "XYZ");
  EXPECT_FALSE(muro::g_has_monotonic);
  ::unsetenv("TZ");
  muro::init_unixtime();
}

TEST(task_lock, is_one_recursive_lock) {
  muro::rec_mutex* const lock = muro::task_lock();
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(muro::task_lock(), lock);
  const muro::rec_lock once(lock);
  const muro::rec_lock twice(lock);
}

namespace {

std::vector<unsigned long long> g_pauses;

/// Interrupts the process every millisecond, with a handler that restarts nothing.
class interruptions {
 public:
  interruptions() {
    struct sigaction action {};
    action.sa_handler = [](int) { g_count = g_count + 1; };
    ::sigaction(SIGALRM, &action, &before_);
    g_count = 0;
    const itimerval every_ms{{0, 1000}, {0, 1000}};
    ::setitimer(ITIMER_REAL, &every_ms, nullptr);
  }
  ~interruptions() {
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &before_, nullptr);
  }
  interruptions(const interruptions&) = delete;
  interruptions& operator=(const interruptions&) = delete;

  static int count() { return g_count; }

 private:
  static inline volatile sig_atomic_t g_count = 0;
  struct sigaction before_ {};
};

}  // namespace

TEST(pause_us, lasts_its_full_length_under_signals) {
  const auto start = std::chrono::steady_clock::now();
  {
    const interruptions storm;
    muro::pause_us(50000);
    EXPECT_GT(storm.count(), 0);
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(50000));
}

// Of each 10 ms the handler takes 8, so that sleeping for 300 ms in all would take 1,500.
TEST(pause_us, lasts_no_longer_for_the_time_that_signals_take) {
  struct sigaction slow {};
  slow.sa_handler = [](int) { ::usleep(8000); };
  struct sigaction before {};
  ::sigaction(SIGUSR2, &slow, &before);
  std::atomic<bool> stop{false};
  std::thread sender([&stop, target = ::pthread_self()] {
    while (!stop) {
      ::pthread_kill(target, SIGUSR2);
      ::usleep(10000);
    }
  });
  const auto start = std::chrono::steady_clock::now();
  muro::pause_us(300000);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
  stop = true;
  sender.join();
  ::sigaction(SIGUSR2, &before, nullptr);
}

TEST(pause_us, takes_whole_seconds_too) {
  const auto start = std::chrono::steady_clock::now();
  muro::pause_us(1000001);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(1000001));
}

TEST(pause_us, keeps_errno) {
  const interruptions storm;
  errno = EIO;
  muro::pause_us(5000);
  EXPECT_EQ(errno, EIO);
}

TEST(pause_us, is_the_hosts_when_there_is_one) {
  g_pauses.clear();
  const replaced hook(
      muro::x_pause_us, +[](unsigned long long us) { g_pauses.push_back(us); });
  const auto start = std::chrono::steady_clock::now();
  muro::pause_us(3600000000ULL);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(1));
  EXPECT_EQ(g_pauses, std::vector<unsigned long long>{3600000000ULL});
}
