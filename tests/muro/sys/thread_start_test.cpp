#include "muro/sys/thread.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "tests/muro/sys/thread_support.h"

namespace {

using muro::detail::g_thread_calls;
using test::captured_log;
using test::fresh_process;
using test::lines;
using test::lock_probe;
using test::no_threads;
using test::replaced;
using test::threads;
using test::thrown;
using test::worker;

}  // namespace

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
