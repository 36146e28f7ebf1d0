#include "muro/sys/thread.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "muro/sys/time.h"

#include "tests/muro/sys/thread_support.h"

namespace {

using muro::detail::g_thread_calls;
using test::captured_log;
using test::fresh_process;
using test::lines;
using test::lock_probe;
using test::replaced;
using test::threads;
using test::worker;

}  // namespace

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
  start(one, 99);
  one.synchronize();
  EXPECT_EQ(inside.sched_priority, before.sched_priority);
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

lines g_steps;
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

TEST(get_current_thread_id, is_the_calling_threads) {
  EXPECT_TRUE(::pthread_equal(muro::get_current_thread_id(), ::pthread_self()));
}
