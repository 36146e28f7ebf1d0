#include "muro/sys/thread.h"

#include <atomic>
#include <cerrno>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "muro/sys/time.h"

#include "tests/muro/sys/thread_support.h"
#include "tests/support/signal_storm.h"
#include "tests/support/stepping_clock.h"
#include "tests/support/stopwatch.h"

namespace {

using muro::detail::g_thread_calls;
using test::lines;
using test::replaced;
using test::thrown;

}  // namespace

TEST(semaphore, starts_with_its_initial_count_whatever_the_first_argument) {
  muro::semaphore none(5, 0);
  muro::semaphore two(0, 2);
  EXPECT_FALSE(none.wait_ms(0));
  EXPECT_TRUE(two.wait_ms(0));
  EXPECT_TRUE(two.wait_ms(0));
  EXPECT_FALSE(two.wait_ms(0));
}

TEST(semaphore, wait_takes_what_post_gives) {
  muro::semaphore count(0, 0);
  count.post();
  count.post();
  count.wait();
  count.wait();
  EXPECT_FALSE(count.wait_ms(0));
}

TEST(semaphore, wait_blocks_until_another_thread_posts) {
  muro::semaphore go(0, 0);
  muro::semaphore done(0, 0);
  std::thread other([&] {
    go.wait();
    done.post();
  });
  EXPECT_FALSE(done.wait_ms(30));
  go.post();
  done.wait();
  other.join();
}

TEST(semaphore, each_post_lets_one_waiter_go) {
  muro::semaphore go(0, 0);
  muro::semaphore done(0, 0);
  std::vector<std::thread> waiting;
  for (int i = 0; i < 3; ++i) {
    waiting.emplace_back([&] {
      go.wait();
      done.post();
    });
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(done.wait_ms(10));
    go.post();
    done.wait();
  }
  for (auto& one : waiting) one.join();
}

TEST(semaphore, may_be_destroyed_by_the_waiter_while_post_returns) {
  // Under the sanitizers a touch of the dead semaphore shows.
  std::atomic<muro::semaphore*> waiting{nullptr};
  constexpr int kRounds = 2000;
  std::thread posting([&] {
    for (int n = 0; n < kRounds; ++n) {
      muro::semaphore* one;
      while ((one = waiting.exchange(nullptr)) == nullptr) std::this_thread::yield();
      one->post();
    }
  });
  for (int n = 0; n < kRounds; ++n) {
    const auto on_heap = std::make_unique<muro::semaphore>(0, 0);
    waiting = on_heap.get();
    on_heap->wait();
  }
  posting.join();
}

namespace {

lines g_steps;
int g_in_vain;

}  // namespace

TEST(semaphore, post_signals_before_it_lets_the_mutex_go_and_post_to_stay_after_it) {
  muro::semaphore count(0, 0);
  g_steps.clear();
  const replaced lock(
      g_thread_calls.mutex_lock, +[](pthread_mutex_t* mutex) {
        g_steps.emplace_back("lock");
        return ::pthread_mutex_lock(mutex);
      });
  const replaced unlock(
      g_thread_calls.mutex_unlock, +[](pthread_mutex_t* mutex) {
        g_steps.emplace_back("unlock");
        return ::pthread_mutex_unlock(mutex);
      });
  const replaced signal(
      g_thread_calls.cond_signal, +[](pthread_cond_t* condition) {
        g_steps.emplace_back("signal");
        return ::pthread_cond_signal(condition);
      });
  count.post();
  EXPECT_EQ(g_steps, (lines{"lock", "signal", "unlock"}));
  g_steps.clear();
  count.post_to_stay();
  EXPECT_EQ(g_steps, (lines{"lock", "unlock", "signal"})) << "the waiter finds the mutex free";
}

TEST(semaphore, post_to_stay_gives_a_count_even_when_it_fails_to_wake) {
  muro::semaphore count(0, 0);
  count.post_to_stay();
  {
    const replaced call(
        g_thread_calls.cond_signal, +[](pthread_cond_t*) { return EINVAL; });
    EXPECT_EQ(thrown([&] { count.post_to_stay(); }), ":Error in 'post'");
  }
  EXPECT_TRUE(count.wait_ms(0));
  EXPECT_TRUE(count.wait_ms(0));
  EXPECT_FALSE(count.wait_ms(0));
}

TEST(semaphore, that_cannot_be_made_fails_by_its_own_name) {
  {
    const replaced call(
        g_thread_calls.mutex_init,
        +[](pthread_mutex_t*, const pthread_mutexattr_t*) { return ENOMEM; });
    EXPECT_EQ(thrown([] { muro::semaphore(0, 0); }), ":Error in 'semaphore'");
  }
  const replaced call(
      g_thread_calls.cond_init, +[](pthread_cond_t*) noexcept { return ENOMEM; });
  EXPECT_EQ(thrown([] { muro::semaphore(0, 0); }), ":Error in 'semaphore'");
}

TEST(semaphore, wait_goes_on_when_it_is_woken_in_vain) {
  muro::semaphore count(0, 0);
  g_in_vain = 0;
  const replaced call(
      g_thread_calls.cond_wait,
      +[](pthread_cond_t*, pthread_mutex_t*) { return ++g_in_vain < 3 ? 0 : EINVAL; });
  EXPECT_EQ(thrown([&] { count.wait(); }), ":Error in 'wait'");
  EXPECT_EQ(g_in_vain, 3);
}

TEST(semaphore, a_failing_wait_fails_by_its_own_name_and_holds_no_lock) {
  muro::semaphore count(0, 0);
  {
    const replaced call(
        g_thread_calls.cond_wait, +[](pthread_cond_t*, pthread_mutex_t*) { return EINVAL; });
    EXPECT_EQ(thrown([&] { count.wait(); }), ":Error in 'wait'");
  }
  std::thread([&] { count.post(); }).join();
  EXPECT_TRUE(count.wait_ms(0));
}

TEST(semaphore, a_failing_signal_fails_as_post_with_the_count_given) {
  muro::semaphore count(0, 0);
  {
    const replaced call(
        g_thread_calls.cond_signal, +[](pthread_cond_t*) { return EINVAL; });
    EXPECT_EQ(thrown([&] { count.post(); }), ":Error in 'post'");
  }
  EXPECT_TRUE(count.wait_ms(0));
}

TEST(semaphore, wait_ms_of_no_time_only_looks) {
  const replaced call(
      g_thread_calls.cond_timedwait,
      +[](pthread_cond_t*, pthread_mutex_t*, long long) { return EINVAL; });
  muro::semaphore count(0, 0);
  EXPECT_FALSE(count.wait_ms(0));
  EXPECT_FALSE(count.wait_ms(-5));
  EXPECT_FALSE(count.wait_ms(std::numeric_limits<long long>::min()));
  count.post();
  EXPECT_TRUE(count.wait_ms(-5));
}

TEST(semaphore, wait_ms_ends_when_its_time_is_over) {
  muro::semaphore count(0, 0);
  const test::stopwatch watch;
  EXPECT_FALSE(count.wait_ms(40));
  EXPECT_GE(watch.ms(), 40);
}

TEST(semaphore, wait_ms_is_true_when_the_count_comes_meanwhile) {
  muro::semaphore count(0, 0);
  std::thread other([&] { count.post(); });
  EXPECT_TRUE(count.wait_ms(60000));
  EXPECT_FALSE(count.wait_ms(0));
  other.join();
}

namespace {

long long g_now_ms;
std::vector<long long> g_waits_ms;

/// A wait that is woken 30 ms later, in vain.
int woken_in_vain(pthread_cond_t*, pthread_mutex_t*, long long wait_ms) {
  g_waits_ms.push_back(wait_ms);
  g_now_ms += 30;
  return 0;
}

}  // namespace

TEST(semaphore, wait_ms_keeps_its_total_time_however_often_it_is_woken_in_vain) {
  muro::semaphore count(0, 0);
  g_now_ms = 1000;
  g_waits_ms.clear();
  const replaced clock(
      muro::x_relative_time, +[] { return g_now_ms; });
  const replaced call(g_thread_calls.cond_timedwait, woken_in_vain);
  EXPECT_FALSE(count.wait_ms(100));
  EXPECT_EQ(g_waits_ms, (std::vector<long long>{100, 70, 40, 10}));
  EXPECT_EQ(g_now_ms, 1120);
}

TEST(semaphore, wait_ms_lasts_as_long_when_the_wall_clock_is_set) {
  for (const long step_s : {3600L, -3600L}) {
    const test::stepping_clock clock(step_s);
    muro::semaphore count(0, 0);
    const test::stopwatch watch;
    EXPECT_FALSE(count.wait_ms(60));
    EXPECT_GE(watch.ms(), 60) << step_s;
    EXPECT_LT(watch.ms(), 10000) << step_s;
  }
}

TEST(semaphore, wait_ms_lasts_as_long_under_signals) {
  muro::semaphore count(0, 0);
  const test::signal_storm storm;
  const test::stopwatch watch;
  EXPECT_FALSE(count.wait_ms(100));
  EXPECT_GE(watch.ms(), 100);
  EXPECT_LT(watch.ms(), 10000);
  EXPECT_GT(storm.sent(), 5);
}

TEST(semaphore, wait_ms_waits_though_its_time_is_longer_than_the_system_can_wait) {
  muro::semaphore count(0, 0);
  std::thread other([&] { count.post(); });
  EXPECT_TRUE(count.wait_ms(std::numeric_limits<long long>::max()));
  other.join();
}

TEST(semaphore, wait_ms_goes_on_after_an_early_time_out_of_the_system) {
  muro::semaphore count(0, 0);
  g_now_ms = 0;
  g_waits_ms.clear();
  const replaced clock(
      muro::x_relative_time, +[] { return g_now_ms; });
  const replaced call(
      g_thread_calls.cond_timedwait, +[](pthread_cond_t* c, pthread_mutex_t* m, long long wait_ms) {
        woken_in_vain(c, m, wait_ms);
        return ETIMEDOUT;
      });
  EXPECT_FALSE(count.wait_ms(61));
  EXPECT_EQ(g_waits_ms.size(), 3U);
}

TEST(semaphore, wait_ms_with_another_failure_throws_cond_) {
  muro::semaphore count(0, 0);
  const replaced call(
      g_thread_calls.cond_timedwait,
      +[](pthread_cond_t*, pthread_mutex_t*, long long) { return EINVAL; });
  EXPECT_EQ(thrown([&] { count.wait_ms(10); }), ":Error in 'cond_'");
}

TEST(semaphore, wait_of_seconds_goes_through_the_virtual_wait_ms) {
  struct recording : muro::semaphore {
    recording() : semaphore(0, 0) {}
    bool wait_ms(long long ms) override {
      asked.push_back(ms);
      return true;
    }
    std::vector<long long> asked;
  } count;
  EXPECT_TRUE(static_cast<muro::semaphore&>(count).wait(3));
  EXPECT_TRUE(static_cast<muro::semaphore&>(count).wait(-1));
  EXPECT_EQ(count.asked, (std::vector<long long>{3000, -1000}));
}

TEST(semaphore, wait_of_seconds_takes_a_count_or_times_out) {
  muro::semaphore count(0, 1);
  EXPECT_TRUE(count.wait(60));
  EXPECT_FALSE(count.wait(0L));
}

TEST(semaphore, wait_of_very_many_seconds_does_not_wrap) {
  struct recording : muro::semaphore {
    recording() : semaphore(0, 0) {}
    bool wait_ms(long long ms) override { return ms > 0; }
  } count;
  EXPECT_TRUE(static_cast<muro::semaphore&>(count).wait(std::numeric_limits<long>::max()));
  EXPECT_FALSE(static_cast<muro::semaphore&>(count).wait(std::numeric_limits<long>::min()));
}
