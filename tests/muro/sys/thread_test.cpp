#include "muro/sys/thread.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/thread_internal.h"
#include "muro/sys/time.h"
#include "tests/muro/sys/replaced.h"

namespace {

using muro::detail::g_thread_calls;
using test::replaced;
using lines = std::vector<std::string>;

template <class Action>
std::string thrown(Action action) {
  try {
    action();
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "";
}

/// A thread that runs a function and waits for its end before anything of it is destroyed.
class worker : public muro::thread {
 public:
  explicit worker(std::function<void()> body, bool self_delete = false)
      : thread(self_delete, "worker", 1), body_(std::move(body)) {}
  ~worker() override {
    synchronize();
    if (at_end) at_end();
  }

  std::function<void()> at_end;

 private:
  void run() override { body_(); }

  std::function<void()> body_;
};

/// Takes the lines that are logged meanwhile, so that the log's own thread sees none of them.
class captured_log {
 public:
  captured_log() {
    lines_.clear();
    muro::errlog::set_log_filter([](const char* text, std::size_t length) {
      const std::lock_guard lock(mutex_);
      lines_.emplace_back(text, length);
      if (on_line) on_line();
      return 0;
    });
  }
  ~captured_log() {
    muro::errlog::set_log_filter(nullptr);
    on_line = nullptr;
  }
  captured_log(const captured_log&) = delete;
  captured_log& operator=(const captured_log&) = delete;

  lines taken() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  static inline std::function<void()> on_line;

 private:
  static inline std::mutex mutex_;
  static inline lines lines_;
};

int refuse_thread(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
  return EAGAIN;
}

/// The system makes no threads.
struct no_threads : replaced<decltype(g_thread_calls.create), decltype(&refuse_thread)> {
  no_threads() : replaced(g_thread_calls.create, refuse_thread) {}
};

/// Another thread that asks for the lock over the thread counters. The lock must be free again when
/// the probe goes.
class lock_probe {
 public:
  lock_probe()
      : asking_([this] {
          muro::running_threads();
          got_.post();
        }) {}
  ~lock_probe() { asking_.join(); }

  /// A lock that is free is got at once; one that is held is not got however long this waits.
  bool is_blocked() { return !got_.wait_ms(50); }
  bool gets_it() { return got_.wait_ms(60000); }

 private:
  muro::semaphore got_{0, 0};
  std::thread asking_;
};

/// Threads that are started here have ended, to their last step, before the test is over.
class threads : public ::testing::Test {
 protected:
  void SetUp() override {
    muro::_prevent_cb = [] { g_ended.post(); };
  }
  void TearDown() override {
    wait_for_ends();
    muro::_prevent_cb = nullptr;
  }

  void start(muro::thread& thread) {
    ++started_;
    thread.detach();
  }
  void wait_for_ends() {
    for (; started_ > 0; --started_) g_ended.wait();
  }

 private:
  static inline muro::semaphore g_ended{0, 0};
  int started_ = 0;
};

/// For what must be the first use of something in its process.
class fresh_process : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

// Mutexes

TEST(rec_mutex, may_be_locked_again_by_its_holder_and_needs_as_many_unlocks) {
  muro::rec_mutex mutex;
  muro::semaphore got(0, 0);
  mutex.lock();
  mutex.lock();
  mutex.unlock();
  std::thread other([&] {
    const muro::rec_lock lock(mutex);
    got.post();
  });
  EXPECT_FALSE(got.wait_ms(50));
  mutex.unlock();
  got.wait();
  other.join();
}

TEST(rec_mutex, keeps_other_threads_out) {
  muro::rec_mutex mutex;
  int count = 0;
  std::vector<std::thread> counting;
  for (int i = 0; i < 4; ++i) {
    counting.emplace_back([&] {
      for (int n = 0; n < 5000; ++n) {
        const muro::rec_lock lock(&mutex);
        ++count;
      }
    });
  }
  for (auto& one : counting) one.join();
  EXPECT_EQ(count, 20000);
}

TEST(rec_mutex, that_cannot_be_made_fails_by_its_own_name) {
  const replaced call(
      g_thread_calls.mutex_init,
      +[](pthread_mutex_t*, const pthread_mutexattr_t*) { return ENOMEM; });
  EXPECT_EQ(thrown([] { muro::rec_mutex(); }), ":Error in 'rec_mutex'");
}

TEST(rec_mutex, failures_of_lock_and_unlock_carry_their_names) {
  muro::rec_mutex mutex;
  {
    const replaced call(
        g_thread_calls.mutex_lock, +[](pthread_mutex_t*) { return EAGAIN; });
    EXPECT_EQ(thrown([&] { mutex.lock(); }), ":Error in 'lock'");
    EXPECT_EQ(thrown([&] { const muro::rec_lock lock(mutex); }), ":Error in 'lock'");
  }
  const replaced call(
      g_thread_calls.mutex_unlock, +[](pthread_mutex_t*) { return EPERM; });
  EXPECT_EQ(thrown([&] { mutex.unlock(); }), ":Error in 'unlock'");
}

TEST(rec_lock, swallows_a_failing_unlock) {
  muro::rec_mutex mutex;
  {
    const replaced call(
        g_thread_calls.mutex_unlock, +[](pthread_mutex_t*) { return EPERM; });
    EXPECT_NO_THROW(muro::rec_lock{mutex});
  }
  mutex.unlock();
}

TEST(rec_lock, of_no_mutex_holds_nothing) {
  muro::rec_mutex* const none = nullptr;
  EXPECT_NO_THROW(muro::rec_lock{none});
}

TEST(slock, holds_a_plain_mutex_for_its_lifetime) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const auto try_elsewhere = [&] {
    int result = 0;
    std::thread([&] {
      result = ::pthread_mutex_trylock(&mutex);
      if (result == 0) ::pthread_mutex_unlock(&mutex);
    }).join();
    return result;
  };
  {
    const slock lock(mutex);
    EXPECT_EQ(try_elsewhere(), EBUSY);
  }
  EXPECT_EQ(try_elsewhere(), 0);
}

TEST(slock, that_cannot_lock_fails_by_its_own_name) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const replaced call(
      g_thread_calls.mutex_lock, +[](pthread_mutex_t*) { return EINVAL; });
  EXPECT_EQ(thrown([&] { const slock lock(mutex); }), ":Error in 'slock'");
}

// Semaphores

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

}  // namespace

TEST(semaphore, post_signals_before_it_lets_the_mutex_go) {
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
}

TEST(semaphore, that_cannot_be_made_fails_by_its_own_name) {
  {
    const replaced call(
        g_thread_calls.mutex_init,
        +[](pthread_mutex_t*, const pthread_mutexattr_t*) { return ENOMEM; });
    EXPECT_EQ(thrown([] { muro::semaphore(0, 0); }), ":Error in 'semaphore'");
  }
  const replaced call(
      g_thread_calls.cond_init, +[](pthread_cond_t*, const pthread_condattr_t*) { return ENOMEM; });
  EXPECT_EQ(thrown([] { muro::semaphore(0, 0); }), ":Error in 'semaphore'");
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
      +[](pthread_cond_t*, pthread_mutex_t*, const timespec*) { return EINVAL; });
  muro::semaphore count(0, 0);
  EXPECT_FALSE(count.wait_ms(0));
  EXPECT_FALSE(count.wait_ms(-5));
  EXPECT_FALSE(count.wait_ms(std::numeric_limits<long long>::min()));
  count.post();
  EXPECT_TRUE(count.wait_ms(-5));
}

TEST(semaphore, wait_ms_ends_when_its_time_is_over) {
  muro::semaphore count(0, 0);
  const long long before = muro::relative_time();
  EXPECT_FALSE(count.wait_ms(40));
  EXPECT_GE(muro::relative_time() - before, 40);
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
std::vector<timespec> g_deadlines;

/// A wait that is woken 30 ms later, in vain.
int woken_in_vain(pthread_cond_t*, pthread_mutex_t*, const timespec* deadline) {
  g_deadlines.push_back(*deadline);
  g_now_ms += 30;
  return 0;
}

}  // namespace

TEST(semaphore, wait_ms_keeps_its_total_time_however_often_it_is_woken_in_vain) {
  muro::semaphore count(0, 0);
  g_now_ms = 1000;
  g_deadlines.clear();
  const replaced clock(
      muro::x_relative_time, +[] { return g_now_ms; });
  const replaced call(g_thread_calls.cond_timedwait, woken_in_vain);
  EXPECT_FALSE(count.wait_ms(100));
  EXPECT_EQ(g_deadlines.size(), 4U);  // 100, 70, 40 and 10 ms were left
  EXPECT_EQ(g_now_ms, 1120);
}

TEST(semaphore, wait_ms_waits_until_the_wall_clock_plus_what_is_left) {
  muro::semaphore count(0, 0);
  g_now_ms = 1000;
  g_deadlines.clear();
  const replaced clock(
      muro::x_relative_time, +[] { return g_now_ms; });
  const replaced call(g_thread_calls.cond_timedwait, woken_in_vain);
  timespec before{};
  timespec after{};
  muro::clock_realtime(before);
  EXPECT_FALSE(count.wait_ms(31));
  muro::clock_realtime(after);
  ASSERT_EQ(g_deadlines.size(), 2U);
  for (const long long left : {31LL, 1LL}) {
    const timespec deadline = g_deadlines[left == 31 ? 0 : 1];
    EXPECT_GE(muro::get_ns(deadline), muro::get_ns(before) + left * 1000000);
    EXPECT_LE(muro::get_ns(deadline), muro::get_ns(after) + left * 1000000);
  }
}

TEST(semaphore, wait_ms_goes_on_after_an_early_time_out_of_the_system) {
  muro::semaphore count(0, 0);
  g_now_ms = 0;
  g_deadlines.clear();
  const replaced clock(
      muro::x_relative_time, +[] { return g_now_ms; });
  const replaced call(
      g_thread_calls.cond_timedwait,
      +[](pthread_cond_t* c, pthread_mutex_t* m, const timespec* deadline) {
        woken_in_vain(c, m, deadline);
        return ETIMEDOUT;
      });
  EXPECT_FALSE(count.wait_ms(61));
  EXPECT_EQ(g_deadlines.size(), 3U);
}

TEST(semaphore, wait_ms_with_another_failure_throws_cond_) {
  muro::semaphore count(0, 0);
  const replaced call(
      g_thread_calls.cond_timedwait,
      +[](pthread_cond_t*, pthread_mutex_t*, const timespec*) { return EINVAL; });
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

// Threads

TEST(thread, name_has_its_number_behind_a_colon) {
  struct named : muro::thread {
    using muro::thread::thread;
    void run() override {}
  };
  EXPECT_EQ(named(false, "server", 3).name(), "server:3");
  EXPECT_EQ(named(false, "server", -1).name(), "server:-1");
  EXPECT_EQ(named(false, "", 3).name(), "");
}

TEST(thread, never_started_neither_blocks_its_destructor_nor_synchronize) {
  worker idle([] { FAIL(); });
  idle.synchronize();
  idle.synchronize();
}

TEST_F(threads, the_body_runs_on_another_thread) {
  pthread_t other{};
  worker one([&] { other = muro::get_current_thread_id(); });
  start(one);
  one.synchronize();
  EXPECT_FALSE(::pthread_equal(other, muro::get_current_thread_id()));
}

TEST_F(threads, synchronize_waits_for_the_body_and_then_returns_at_once) {
  muro::semaphore go(0, 0);
  muro::semaphore seen(0, 0);
  worker one([&] { go.wait(); });
  start(one);
  std::thread watcher([&] {
    one.synchronize();
    seen.post();
  });
  EXPECT_FALSE(seen.wait_ms(30));
  go.post();
  seen.wait();
  watcher.join();
  one.synchronize();
  one.synchronize();
}

namespace {

muro::semaphore g_entered(0, 0);
std::atomic<bool> g_left{false};

/// A thread that leaves the waiting to its base.
struct careless : muro::thread {
  careless() : thread(false, "", 0) {}
  void run() override {
    g_entered.post();
    muro::pause_us(20000);
    g_left = true;
  }
};

}  // namespace

TEST_F(threads, the_destructor_waits_until_the_body_has_returned) {
  g_left = false;
  {
    careless one;
    start(one);
    g_entered.wait();
  }
  EXPECT_TRUE(g_left);
}

TEST_F(threads, a_self_deleting_thread_is_deleted_after_its_body) {
  muro::semaphore deleted(0, 0);
  bool body_returned = false;
  auto* const one = new worker([&] { body_returned = true; }, true);
  one->at_end = [&] { deleted.post(); };
  start(*one);
  deleted.wait();
  EXPECT_TRUE(body_returned);
}

TEST_F(threads, many_self_deleting_threads_come_and_go) {
  muro::semaphore deleted(0, 0);
  for (int n = 0; n < 100; ++n) {
    auto* const one = new worker([] {}, true);
    one->at_end = [&] { deleted.post(); };
    start(*one);
  }
  for (int n = 0; n < 100; ++n) deleted.wait();
}

TEST_F(threads, detach_accepts_a_priority_and_does_not_use_it) {
  sched_param before{};
  sched_param inside{};
  int policy = 0;
  ASSERT_EQ(::pthread_getschedparam(::pthread_self(), &policy, &before), 0);
  worker one([&] { ::pthread_getschedparam(::pthread_self(), &policy, &inside); });
  std::thread expect_an_end([this, &one] { start(one); });
  expect_an_end.join();
  one.synchronize();
  EXPECT_EQ(inside.sched_priority, before.sched_priority);
}

TEST_F(threads, a_second_detach_fails_and_starts_nothing) {
  muro::init_thread();
  const captured_log log;
  std::atomic<int> runs{0};
  worker one([&] { ++runs; });
  start(one);
  one.synchronize();
  const std::int32_t errors = *muro::thread_startup_error;
  EXPECT_EQ(thrown([&] { one.detach(); }), ":Error in 'detach'");
  one.synchronize();
  wait_for_ends();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(*muro::thread_startup_error, errors);
  EXPECT_EQ(log.taken(), lines{});
}

TEST_F(threads, a_thread_that_the_system_refuses_is_counted_logged_and_thrown) {
  muro::init_thread();
  const captured_log log;
  const std::int32_t errors = *muro::thread_startup_error;
  const std::int32_t running = muro::running_threads();
  worker one([] {});
  {
    const no_threads injected;
    EXPECT_EQ(thrown([&] { one.detach(); }), ":Error in 'detach'");
  }
  EXPECT_EQ(*muro::thread_startup_error, errors + 1);
  EXPECT_EQ(muro::running_threads(), running);
  EXPECT_EQ(log.taken(),
            (lines{"thread startup: pthread_create failed: " + muro::safe_strerror(EAGAIN),
                   "thread startup: error count: " + std::to_string(errors + 1)}));
}

TEST_F(threads, a_thread_that_was_refused_can_be_started_later) {
  const captured_log log;
  bool ran = false;
  worker one([&] { ran = true; });
  {
    const no_threads injected;
    EXPECT_NE(thrown([&] { one.detach(); }), "");
  }
  start(one);
  one.synchronize();
  EXPECT_TRUE(ran);
}

TEST_F(threads, a_self_deleting_thread_that_was_refused_stays_its_makers) {
  const captured_log log;
  bool deleted = false;
  auto* const one = new worker([] {}, true);
  one->at_end = [&] { deleted = true; };
  const no_threads injected;
  EXPECT_NE(thrown([&] { one->detach(); }), "");
  EXPECT_FALSE(deleted);
  delete one;
  EXPECT_TRUE(deleted);
}

TEST_F(threads, a_refused_start_is_logged_with_the_counters_free) {
  // The log may have to start its own thread for the line, and wait for that thread's first step.
  const captured_log log;
  int free = 0;
  captured_log::on_line = [&] { free += lock_probe().gets_it(); };
  const no_threads injected;
  worker one([] {});
  EXPECT_NE(thrown([&] { one.detach(); }), "");
  EXPECT_EQ(free, 2);
}

TEST_F(threads, a_start_that_fails_inside_the_report_of_another_is_not_reported) {
  // As when the thread that the system refuses is the log's own.
  muro::init_thread();
  const captured_log log;
  const std::int32_t errors = *muro::thread_startup_error;
  const no_threads injected;
  worker inner([] {});
  captured_log::on_line = [&] { EXPECT_EQ(thrown([&] { inner.detach(); }), ":Error in 'detach'"); };
  worker outer([] {});
  EXPECT_EQ(thrown([&] { outer.detach(); }), ":Error in 'detach'");
  EXPECT_EQ(log.taken().size(), 2U);
  EXPECT_EQ(*muro::thread_startup_error, errors + 3);
}

namespace {

muro::semaphore g_body_entered(0, 0);
bool g_body_entered_early;

int create_and_linger(pthread_t* handle, const pthread_attr_t* attributes, void* (*entry)(void*),
                      void* object) {
  const int result = ::pthread_create(handle, attributes, entry, object);
  g_body_entered_early = g_body_entered.wait_ms(50);
  return result;
}

}  // namespace

TEST_F(threads, the_body_does_not_run_before_detach_has_done_its_bookkeeping) {
  worker one([] { g_body_entered.post(); });
  {
    const replaced injected(g_thread_calls.create, create_and_linger);
    start(one);
  }
  EXPECT_FALSE(g_body_entered_early);
  g_body_entered.wait();
}

TEST_F(threads, are_counted_while_they_run) {
  muro::semaphore go(0, 0);
  const std::int32_t before = muro::running_threads();
  worker one([&] { go.wait(); });
  worker two([&] { go.wait(); });
  start(one);
  start(two);
  EXPECT_EQ(muro::running_threads(), before + 2);
  go.post();
  go.post();
  wait_for_ends();
  EXPECT_EQ(muro::running_threads(), before);
}

TEST_F(threads, the_maximum_is_the_highest_count_seen) {
  muro::init_thread();
  const std::int32_t before = muro::running_threads();
  muro::semaphore go(0, 0);
  worker one([&] { go.wait(); });
  worker two([&] { go.wait(); });
  start(one);
  start(two);
  go.post();
  go.post();
  wait_for_ends();
  worker three([] {});
  start(three);
  EXPECT_EQ(muro::maximum_threads(), before + 2);
}

TEST_F(threads, a_new_maximum_is_logged_under_the_category_that_is_set) {
  muro::init_thread();
  const captured_log log;
  const replaced category(muro::thread_statistics_category, static_cast<const char*>("stat"));
  const std::int32_t before = muro::running_threads();
  worker one([] {});
  start(one);
  wait_for_ends();
  worker two([] {});
  start(two);
  wait_for_ends();
  EXPECT_EQ(log.taken(),
            lines{"stat: new maximum number of threads: " + std::to_string(before + 1)});
}

TEST_F(threads, a_new_maximum_is_not_logged_without_a_category) {
  muro::init_thread();
  const captured_log log;
  worker one([] {});
  start(one);
  wait_for_ends();
  EXPECT_EQ(log.taken(), lines{});
}

namespace {

std::unique_ptr<lock_probe> g_probe;
bool g_blocked_in_unprevent;
bool g_free_in_prevent;
std::int32_t g_running_in_unprevent;
muro::semaphore g_prevented(0, 0);

}  // namespace

TEST(thread, calls_the_end_hooks_in_order_the_first_with_the_counters_locked) {
  const std::int32_t before = muro::running_threads();
  g_steps.clear();
  muro::_unprevent_timeout = [] {
    g_steps.emplace_back("unprevent");
    g_running_in_unprevent = muro::running_threads();
    g_probe = std::make_unique<lock_probe>();
    g_blocked_in_unprevent = g_probe->is_blocked();
  };
  muro::_prevent_cb = [] {
    g_steps.emplace_back("prevent");
    g_free_in_prevent = lock_probe().gets_it();
    g_prevented.post();
  };
  worker one([] { g_steps.emplace_back("body"); });
  one.detach();
  g_prevented.wait();
  muro::_unprevent_timeout = nullptr;
  muro::_prevent_cb = nullptr;
  g_probe.reset();
  EXPECT_EQ(g_steps, (lines{"body", "unprevent", "prevent"}));
  EXPECT_EQ(g_running_in_unprevent, before);
  EXPECT_TRUE(g_blocked_in_unprevent);
  EXPECT_TRUE(g_free_in_prevent);
}

TEST_F(fresh_process, an_exception_that_escapes_a_body_ends_the_process) {
  const auto escape = [] {
    worker one([] { throw muro::exception("escaped"); });
    one.detach();
    one.synchronize();
  };
  EXPECT_EXIT(escape(), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(fresh_process, a_thread_runs_before_the_runtime_is_started) {
  const auto run_one = [] {
    bool ran = false;
    {
      worker one([&] { ran = true; });
      one.detach();
    }
    std::_Exit(ran && muro::m_threads_mtx != nullptr ? 0 : 1);
  };
  EXPECT_EXIT(run_one(), ::testing::ExitedWithCode(0), "");
}

TEST_F(fresh_process, a_thread_older_than_init_thread_stays_counted) {
  const auto start_then_init = [] {
    muro::semaphore go(0, 0);
    muro::semaphore ended(0, 0);
    static muro::semaphore* end_of_thread = &ended;
    muro::_prevent_cb = [] { end_of_thread->post(); };
    worker one([&] { go.wait(); });
    one.detach();
    muro::init_thread();
    const std::int32_t with_it = muro::running_threads();
    const std::int32_t maximum = muro::maximum_threads();
    go.post();
    ended.wait();
    std::_Exit(with_it == 1 && maximum == 1 && muro::running_threads() == 0 ? 0 : 1);
  };
  EXPECT_EXIT(start_then_init(), ::testing::ExitedWithCode(0), "");
}

TEST_F(fresh_process, a_start_that_fails_before_the_runtime_is_started_is_counted) {
  const auto fail_early = [] {
    const captured_log log;
    const no_threads injected;
    worker one([] {});
    const bool refused = !thrown([&] { one.detach(); }).empty();
    std::_Exit(refused && *muro::thread_startup_error == 1 ? 0 : 1);
  };
  EXPECT_EXIT(fail_early(), ::testing::ExitedWithCode(0), "");
}

TEST_F(fresh_process, a_failure_after_the_thread_was_made_is_counted_and_passed_on) {
  // The thread is made in name alone, and then the start cannot take `done`.
  const auto fail_late = [] {
    muro::init_thread();
    const captured_log log;
    const auto made_in_name = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
      g_thread_calls.mutex_lock = [](pthread_mutex_t*) { return EINVAL; };
      return 0;
    };
    auto* const one = new worker([] {});
    std::string text;
    g_thread_calls.create = made_in_name;
    try {
      one->detach();
    } catch (const muro::exception& e) {
      g_thread_calls.mutex_lock = ::pthread_mutex_lock;
      text = e.description();
    }
    const bool told = text == ":Error in 'slock'" && *muro::thread_startup_error == 1 &&
                      log.taken() == lines{"thread startup: error count: 1"};
    std::_Exit(told ? 0 : 1);
  };
  EXPECT_EXIT(fail_late(), ::testing::ExitedWithCode(0), "");
}

// Start-up

namespace {

std::size_t g_default_stack;
std::vector<std::size_t> g_stacks_set;

/// The stack size that threads are given where the system's default is `system_default`; 0 when it
/// is left as it is.
std::size_t stack_set_for(std::size_t system_default) {
  g_default_stack = system_default;
  g_stacks_set.clear();
  const replaced get(
      g_thread_calls.attr_getstacksize, +[](const pthread_attr_t*, std::size_t* size) {
        *size = g_default_stack;
        return 0;
      });
  const replaced set(
      g_thread_calls.attr_setstacksize, +[](pthread_attr_t*, std::size_t size) {
        g_stacks_set.push_back(size);
        return 0;
      });
  pthread_attr_t attributes;
  muro::detail::make_thread_attributes(attributes);
  ::pthread_attr_destroy(&attributes);
  return g_stacks_set.empty() ? 0 : g_stacks_set.front();
}

}  // namespace

TEST(thread_attributes, cap_the_stack_at_2_mib) {
  EXPECT_EQ(stack_set_for(8 << 20), 2U << 20);
  EXPECT_EQ(stack_set_for((2 << 20) + 1), 2U << 20);
  EXPECT_EQ(stack_set_for(2 << 20), 0U);
  EXPECT_EQ(stack_set_for(512 << 10), 0U);
}

TEST(thread_attributes, stack_rule_keeps_what_is_small_enough) {
  static_assert(muro::detail::capped_stack_size(8 << 20) == 2 << 20);
  static_assert(muro::detail::capped_stack_size(0x200001) == 0x200000);
  static_assert(muro::detail::capped_stack_size(0x200000) == 0x200000);
  static_assert(muro::detail::capped_stack_size(512 << 10) == 512 << 10);
}

TEST(thread_attributes, are_detached_with_the_capped_stack) {
  int state = PTHREAD_CREATE_JOINABLE;
  std::size_t size = 0;
  const pthread_attr_t& attributes = muro::detail::thread_attributes();
  EXPECT_EQ(::pthread_attr_getdetachstate(&attributes, &state), 0);
  EXPECT_EQ(::pthread_attr_getstacksize(&attributes, &size), 0);
  EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
  EXPECT_LE(size, 2U << 20);
}

TEST(thread_attributes, failures_of_the_stack_size_calls_are_ignored) {
  pthread_attr_t attributes;
  {
    const replaced get(
        g_thread_calls.attr_getstacksize, +[](const pthread_attr_t*, std::size_t* size) {
          *size = 8 << 20;
          return EINVAL;
        });
    g_stacks_set.clear();
    const replaced set(
        g_thread_calls.attr_setstacksize, +[](pthread_attr_t*, std::size_t size) {
          g_stacks_set.push_back(size);
          return 0;
        });
    EXPECT_NO_THROW(muro::detail::make_thread_attributes(attributes));
    ::pthread_attr_destroy(&attributes);
    EXPECT_TRUE(g_stacks_set.empty());
  }
  const replaced set(
      g_thread_calls.attr_setstacksize, +[](pthread_attr_t*, std::size_t) { return EINVAL; });
  EXPECT_NO_THROW(muro::detail::make_thread_attributes(attributes));
  ::pthread_attr_destroy(&attributes);
}

TEST_F(fresh_process, init_thread_fails_when_the_attributes_cannot_be_made) {
  const auto init_with = [](auto& call, auto failing) {
    call = failing;
    const bool failed = thrown([] { muro::init_thread(); }) == ":Error in 'init_thread'";
    call = failing;
    std::_Exit(failed ? 0 : 1);
  };
  EXPECT_EXIT(init_with(
                  g_thread_calls.attr_init, +[](pthread_attr_t*) { return ENOMEM; }),
              ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(init_with(
                  g_thread_calls.attr_setdetachstate, +[](pthread_attr_t*, int) { return EINVAL; }),
              ::testing::ExitedWithCode(0), "");
}

TEST_F(fresh_process, init_thread_can_succeed_after_a_failure) {
  const auto fail_and_try_again = [] {
    {
      const replaced call(
          g_thread_calls.attr_init, +[](pthread_attr_t*) { return ENOMEM; });
      if (thrown([] { muro::init_thread(); }).empty()) std::_Exit(1);
    }
    muro::init_thread();
    std::_Exit(0);
  };
  EXPECT_EXIT(fail_and_try_again(), ::testing::ExitedWithCode(0), "");
}

TEST(init_thread, seeds_rand_with_the_time) {
  const std::time_t before = std::time(nullptr);
  muro::init_thread();
  const int number = std::rand();
  bool explained = false;
  for (std::time_t t = before; t <= std::time(nullptr); ++t) {
    std::srand(static_cast<unsigned>(t));
    explained = explained || std::rand() == number;
  }
  EXPECT_TRUE(explained);
}

TEST(init_thread, makes_the_mutex_and_the_error_counter_once) {
  muro::init_thread();
  muro::rec_mutex* const mutex = muro::m_threads_mtx;
  std::int32_t* const counter = muro::thread_startup_error;
  ASSERT_NE(mutex, nullptr);
  ASSERT_NE(counter, nullptr);
  muro::init_thread();
  EXPECT_EQ(muro::m_threads_mtx, mutex);
  EXPECT_EQ(muro::thread_startup_error, counter);
}

TEST(init_thread, keeps_the_error_counter_of_a_host) {
  std::int32_t hosts = 7;
  const replaced counter(muro::thread_startup_error, &hosts);
  muro::init_thread();
  EXPECT_EQ(muro::thread_startup_error, &hosts);
  EXPECT_EQ(hosts, 7);
}

TEST_F(fresh_process, init_thread_starts_the_counters_at_0) {
  const auto init = [] {
    muro::init_thread();
    std::_Exit(muro::running_threads() == 0 && muro::maximum_threads() == 0 &&
                       *muro::thread_startup_error == 0
                   ? 0
                   : 1);
  };
  EXPECT_EXIT(init(), ::testing::ExitedWithCode(0), "");
}

TEST_F(threads, init_thread_sets_the_counters_back) {
  worker one([] {});
  start(one);
  wait_for_ends();
  ASSERT_GT(muro::maximum_threads(), muro::running_threads());
  muro::init_thread();
  EXPECT_EQ(muro::maximum_threads(), muro::running_threads());
}

namespace {

/// The library lock as it is before init_murolock.
class library_lock : public ::testing::Test {
 protected:
  void TearDown() override {
    if (muro::g_global_mutex != &hosts) delete muro::g_global_mutex;
  }

  muro::rec_mutex hosts;

 private:
  replaced<muro::rec_mutex*, muro::rec_mutex*> mutex_{muro::g_global_mutex, nullptr};
  replaced<void (*)(), void (*)()> lock_{muro::muro_lock, nullptr};
  replaced<void (*)(), void (*)()> unlock_{muro::muro_unlock, nullptr};
};

void hosts_lock() {}

}  // namespace

TEST_F(library_lock, init_murolock_makes_one_and_sets_the_hooks) {
  muro::init_murolock();
  ASSERT_NE(muro::g_global_mutex, nullptr);
  ASSERT_NE(muro::muro_lock, nullptr);
  ASSERT_NE(muro::muro_unlock, nullptr);
  EXPECT_EQ(muro::x_muro_lock_forbidden, nullptr);
}

TEST_F(library_lock, the_hooks_lock_and_unlock_it_recursively) {
  muro::init_murolock();
  muro::semaphore got(0, 0);
  muro::muro_lock();
  muro::muro_lock();
  muro::muro_unlock();
  std::thread other([&] {
    const muro::rec_lock lock(muro::g_global_mutex);
    got.post();
  });
  EXPECT_FALSE(got.wait_ms(50));
  muro::muro_unlock();
  got.wait();
  other.join();
}

TEST_F(library_lock, a_second_init_murolock_keeps_the_first_lock) {
  muro::init_murolock();
  muro::rec_mutex* const first = muro::g_global_mutex;
  muro::init_murolock();
  EXPECT_EQ(muro::g_global_mutex, first);
}

TEST_F(library_lock, one_hook_of_a_host_is_enough_to_keep_out_the_built_in_lock) {
  muro::muro_lock = hosts_lock;
  muro::init_murolock();
  EXPECT_EQ(muro::muro_lock, hosts_lock);
  EXPECT_EQ(muro::muro_unlock, nullptr);
  EXPECT_EQ(muro::g_global_mutex, nullptr);
  muro::muro_lock = nullptr;
  muro::muro_unlock = hosts_lock;
  muro::init_murolock();
  EXPECT_EQ(muro::muro_lock, nullptr);
  EXPECT_EQ(muro::g_global_mutex, nullptr);
}

TEST_F(library_lock, a_mutex_of_a_host_is_enough_to_keep_out_the_hooks) {
  muro::g_global_mutex = &hosts;
  muro::init_murolock();
  EXPECT_EQ(muro::g_global_mutex, &hosts);
  EXPECT_EQ(muro::muro_lock, nullptr);
  EXPECT_EQ(muro::muro_unlock, nullptr);
}

TEST_F(fresh_process, init_murolock_aborts_without_a_recursive_attribute) {
  const auto init_with = [](auto& call, auto failing) {
    call = failing;
    muro::init_murolock();
  };
  EXPECT_EXIT(init_with(
                  g_thread_calls.mutexattr_init, +[](pthread_mutexattr_t*) { return ENOMEM; }),
              ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(
      init_with(
          g_thread_calls.mutexattr_settype, +[](pthread_mutexattr_t*, int) { return EINVAL; }),
      ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(fresh_process, init_murolock_aborts_even_when_a_host_brought_its_lock) {
  const auto init = [] {
    muro::muro_lock = hosts_lock;
    g_thread_calls.mutexattr_init = [](pthread_mutexattr_t*) { return ENOMEM; };
    muro::init_murolock();
  };
  EXPECT_EXIT(init(), ::testing::KilledBySignal(SIGABRT), "");
}

TEST(foreign_thread, seeds_the_random_generators_when_asked) {
  const auto numbers_after = [](bool init) {
    std::srand(123);
    ::srandom(123);
    muro::foreign_thread(init);
    return std::make_pair(std::rand(), ::random());
  };
  const auto plain = numbers_after(false);
  EXPECT_EQ(numbers_after(false), plain);
  EXPECT_NE(numbers_after(true), plain);
}

// Ends and signals

TEST_F(fresh_process, silent_terminate_clean_runs_the_exit_handlers_and_ends_with_0) {
  const auto end = [] {
    std::atexit([] { std::fputs("exit handler", stderr); });
    muro::silent_terminate(true);
  };
  EXPECT_EXIT(end(), ::testing::ExitedWithCode(0), "exit handler");
}

TEST_F(fresh_process, silent_terminate_unclean_is_a_sigkill) {
  EXPECT_EXIT(muro::silent_terminate(false), ::testing::KilledBySignal(SIGKILL), "");
}

namespace {

/// Puts back what a test does to a signal.
class signal_action {
 public:
  explicit signal_action(int signal) : signal_(signal) { ::sigaction(signal, nullptr, &before_); }
  ~signal_action() { ::sigaction(signal_, &before_, nullptr); }
  signal_action(const signal_action&) = delete;
  signal_action& operator=(const signal_action&) = delete;

  struct sigaction now() const {
    struct sigaction action {};
    ::sigaction(signal_, nullptr, &action);
    return action;
  }

 private:
  int signal_;
  struct sigaction before_ {};
};

struct pipe_ends {
  pipe_ends() {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    read = ends[0];
    write = ends[1];
  }
  int read;
  int write;
};

}  // namespace

TEST(disable_sigpipe, makes_a_write_to_a_closed_pipe_fail) {
  const signal_action kept(SIGPIPE);
  muro::disable_sigpipe();
  EXPECT_EQ(kept.now().sa_handler, SIG_IGN);
  const pipe_ends ends;
  ::close(ends.read);
  EXPECT_EQ(::write(ends.write, "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  ::close(ends.write);
}

TEST(disable_sigchild, leaves_children_to_waitpid) {
  const signal_action kept(SIGCHLD);
  muro::disable_sigchild();
  EXPECT_NE(kept.now().sa_handler, SIG_IGN);
  EXPECT_NE(kept.now().sa_handler, SIG_DFL);
  const pid_t child = ::fork();
  ASSERT_NE(child, -1);
  if (child == 0) ::_exit(7);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
}

TEST(disable_sigchild, lets_interrupted_calls_go_on) {
  const signal_action kept(SIGCHLD);
  muro::disable_sigchild();
  const pipe_ends ends;
  ssize_t got = 0;
  std::thread reading([&] {
    char byte;
    got = ::read(ends.read, &byte, 1);
  });
  for (int n = 0; n < 20; ++n) {
    ::pthread_kill(reading.native_handle(), SIGCHLD);
    muro::pause_us(1000);
  }
  EXPECT_EQ(::write(ends.write, "x", 1), 1);
  reading.join();
  EXPECT_EQ(got, 1);
  ::close(ends.read);
  ::close(ends.write);
}

TEST(get_current_thread_id, is_the_calling_threads) {
  EXPECT_TRUE(::pthread_equal(muro::get_current_thread_id(), ::pthread_self()));
}
