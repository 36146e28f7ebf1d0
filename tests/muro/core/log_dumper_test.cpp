#include "muro/core/log_dumper.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "muro/sys/files.h"
#include "muro/sys/thread_internal.h"
#include "muro/sys/user_switch.h"
#include "platform/clock.h"
#include "tests/muro/core/log_fixture.h"
#include "tests/muro/sys/replaced.h"

namespace {

using muro::errlog;
using muro::fmt_dbg;
using muro::detail::g_thread_calls;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class log_dumper_test : public test::log_test {};

/// With the settings as they are when a program starts.
class log_process_test : public test::own_process_test {};

// Before and at the first line.

TEST_F(log_process_test, flush_before_the_first_line_returns_and_starts_nothing) {
  const auto story = [] {
    const std::int32_t before = muro::running_threads();
    errlog::wait_for_flush();
    CHECK_THAT(muro::running_threads() == before);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(log_process_test, first_accepted_line_starts_the_one_thread) {
  const auto story = [] {
    const std::int32_t before = muro::running_threads();
    errlog("main").log(1, "dropped", 7);
    CHECK_THAT(muro::running_threads() == before);
    fmt_dbg("main").fmt_verbose("first");
    CHECK_THAT(muro::running_threads() == before + 1);
    fmt_dbg("main").fmt_verbose("second");
    errlog::wait_for_flush();
    CHECK_THAT(muro::running_threads() == before + 1);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(log_process_test, first_lines_of_many_threads_start_one_thread) {
  const auto story = [] {
    const std::int32_t before = muro::running_threads();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([i] { fmt_dbg("main").fmt_verbose("line %1%", i); });
    }
    for (std::thread& t : threads) t.join();
    errlog::wait_for_flush();
    CHECK_THAT(muro::running_threads() == before + 1);
  };
  EXPECT_IN_OWN_PROCESS(story(), AllOf(HasSubstr("main: line 0\n"), HasSubstr("main: line 7\n")));
}

std::atomic<bool> dumper_came_up{false};
void* (*dumper_start)(void*);

TEST_F(log_process_test, first_line_waits_for_the_thread_to_come_up) {
  const auto story = [] {
    g_thread_calls.create = [](pthread_t* id, const pthread_attr_t* attributes,
                               void* (*start)(void*), void* object) {
      dumper_start = start;
      const auto late = [](void* o) {
        // Time enough for a caller that would not wait.
        ::usleep(50000);
        dumper_came_up = true;
        return dumper_start(o);
      };
      return ::pthread_create(id, attributes, late, object);
    };
    fmt_dbg("main").fmt_verbose("first");
    CHECK_THAT(dumper_came_up);
  };
  EXPECT_IN_OWN_PROCESS(story(), "main: first\n");
}

TEST_F(log_process_test, first_line_of_a_caller_that_holds_up_all_new_threads_is_written) {
  const auto story = [] {
    muro::init_thread();
    {
      const muro::rec_lock no_thread_gets_further(*muro::m_threads_mtx);
      fmt_dbg("main").fmt_verbose("first");
    }
    errlog::wait_for_flush();
  };
  EXPECT_IN_OWN_PROCESS(story(), "main: first\n");
}

/// Logs before main, as an object at namespace scope might, when the environment asks for it.
const bool g_logged_early = [] {
  if (std::getenv("KORVEL_TEST_LOG_EARLY") != nullptr) fmt_dbg("early").fmt_verbose("before main");
  return true;
}();

TEST_F(log_process_test, line_before_main_is_safe) {
  ::setenv("KORVEL_TEST_LOG_EARLY", "1", 1);
  EXPECT_IN_OWN_PROCESS(CHECK_THAT(g_logged_early), HasSubstr("early: before main\n"));
  ::unsetenv("KORVEL_TEST_LOG_EARLY");
}

// Batches.

TEST_F(log_dumper_test, lines_of_one_thread_keep_their_order_and_none_is_lost) {
  constexpr int kThreads = 4, kLines = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) fmt_dbg("").fmt_verbose("%1% %2%", t, i);
    });
  }
  for (std::thread& t : threads) t.join();
  std::istringstream text(file());
  std::map<int, int> next;
  std::string stamp;
  for (int t, i; text >> stamp >> t >> i;) ASSERT_EQ(i, next[t]++) << t;
  EXPECT_EQ(next, (std::map<int, int>{{0, kLines}, {1, kLines}, {2, kLines}, {3, kLines}}));
}

TEST_F(log_dumper_test, callers_do_not_wait_for_output) {
  const test::held_dumper held;
  for (int i = 0; i < 10000; ++i) fmt_dbg("main").fmt_verbose("line %1%", i);
  // Getting here is the proof: no line could be written.
  EXPECT_EQ(test::read_file(path()), "");
}

std::atomic<int> signals_sent;

TEST_F(log_dumper_test, dumper_is_woken_once_for_many_lines) {
  test::held_dumper held;
  signals_sent = 0;
  const test::replaced counting(
      g_thread_calls.cond_signal, +[](pthread_cond_t* condition) {
        ++signals_sent;
        return ::pthread_cond_signal(condition);
      });
  for (int i = 0; i < 100; ++i) fmt_dbg("main").fmt_verbose("line");
  EXPECT_EQ(signals_sent, 1);
}

/// Counts how often a file is opened.
class open_counter {
 public:
  explicit open_counter(const std::string& path) : queue_(::inotify_init1(IN_NONBLOCK)) {
    ::inotify_add_watch(queue_, path.c_str(), IN_OPEN);
  }
  ~open_counter() { ::close(queue_); }

  int count() const {
    char events[65536];
    const ssize_t bytes = ::read(queue_, events, sizeof events);
    int opens = 0;
    for (ssize_t at = 0; at < bytes; ++opens) {
      inotify_event event;
      std::memcpy(&event, events + at, sizeof event);
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
    return opens;
  }

 private:
  int queue_;
};

TEST_F(log_dumper_test, file_is_opened_once_for_a_batch) {
  test::write_file(path(), "");
  const open_counter opens(path());
  test::held_dumper held;
  for (int i = 0; i < 10; ++i) {
    fmt_dbg("main").fmt_verbose("a line that goes by itself: %1%", i);
    fmt_dbg("main").fmt_verbose("a line that is repeated: %1%", i);
    fmt_dbg("main").fmt_verbose("a line that is repeated: %1%", i);
  }
  held.let_go();
  errlog::wait_for_flush();
  EXPECT_EQ(opens.count(), 1);
}

TEST_F(log_dumper_test, file_is_closed_between_batches) {
  log_and_flush("x");
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    EXPECT_NE(std::filesystem::read_symlink(entry.path(), gone), path());
  }
}

TEST_F(log_dumper_test, dumper_takes_no_signals) {
  static std::atomic<int> blocked{0};
  errlog::set_log_direct_sink([](const char*, std::size_t) {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    blocked = ::sigismember(&mask, SIGCHLD) + ::sigismember(&mask, SIGTERM);
  });
  log_and_flush("x");
  EXPECT_EQ(blocked, 2);
}

TEST_F(log_dumper_test, file_work_waits_while_the_effective_user_is_switched) {
  test::write_file(path(), "");
  const open_counter opens(path());
  {
    const muro::effective_user_gate switched;
    fmt_dbg("main").fmt_verbose("one");
    fmt_dbg("main").fmt_verbose("two");
    // Long enough for a dumper that would not wait.
    for (int i = 0; i < 1000; ++i) ::sched_yield();
    EXPECT_EQ(opens.count(), 0);
  }
  EXPECT_EQ(file(), line("main: one") + line("main: two"));
}

// Flush.

TEST_F(log_dumper_test, flush_waits_for_all_lines_before_it) {
  test::held_dumper held;
  std::atomic<bool> flushed{false};
  fmt_dbg("main").fmt_verbose("x");
  std::thread waiter([&] {
    errlog::wait_for_flush();
    flushed = true;
    EXPECT_EQ(test::read_file(path()), line("main: x"));
  });
  for (int i = 0; i < 100; ++i) ::sched_yield();
  EXPECT_FALSE(flushed);
  held.let_go();
  waiter.join();
}

TEST_F(log_dumper_test, many_threads_may_wait_at_once) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 200; ++i) {
        const std::string text = std::to_string(t) + "." + std::to_string(i);
        fmt_dbg("").fmt_verbose(text);
        errlog::wait_for_flush();
        if (i % 50 != 0) continue;
        EXPECT_THAT(test::read_file(path()), HasSubstr(" " + text + "\n"));
      }
    });
  }
  for (std::thread& t : threads) t.join();
}

TEST_F(log_dumper_test, flush_without_lines_returns) {
  log_and_flush("x");
  for (int i = 0; i < 100; ++i) errlog::wait_for_flush();
}

TEST_F(log_dumper_test, flush_on_the_dumpers_own_thread_returns) {
  static std::atomic<int> calls{0};
  errlog::set_log_direct_sink([](const char*, std::size_t) {
    errlog::wait_for_flush();
    ++calls;
  });
  log_and_flush("x");
  EXPECT_EQ(calls, 1);
}

TEST_F(log_dumper_test, line_logged_on_the_dumpers_own_thread_comes_next) {
  static std::atomic<int> lines{0};
  errlog::set_log_direct_sink([](const char*, std::size_t) {
    if (++lines == 1) fmt_dbg("sink").fmt_verbose("from inside");
  });
  log_and_flush("x");
  errlog::wait_for_flush();
  EXPECT_EQ(lines, 2);
}

TEST_F(log_dumper_test, host_flushes_itself) {
  static int flushes;
  flushes = 0;
  muro::x_errlog_wait_for_flush = [] { ++flushes; };
  errlog::wait_for_flush();
  { const errlog::wait_for_flush_task task; }
  EXPECT_EQ(flushes, 2);
}

TEST_F(log_dumper_test, task_waits_in_its_destructor) {
  {
    const errlog::wait_for_flush_task task;
    fmt_dbg("main").fmt_verbose("x");
  }
  EXPECT_EQ(test::read_file(path()), line("main: x"));
}

TEST_F(log_dumper_test, task_swallows_what_the_flush_throws) {
  muro::x_errlog_wait_for_flush = [] { throw muro::exception("flush"); };
  const errlog::wait_for_flush_task task;
}

// A thread that cannot be started.

int refuse_thread(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
  return EAGAIN;
}

TEST_F(log_process_test, lines_go_to_standard_error_while_the_thread_cannot_be_started) {
  const auto story = [] {
    const test::temp_dir own;
    errlog::set_log_file(own / "log");
    g_thread_calls.create = refuse_thread;
    fmt_dbg("main").fmt_verbose("first\n");
    static const char finished[] = "12:00 second\n";
    static bool released = false;
    errlog::log_line_direct(finished, sizeof finished - 1, 5, [](const char*) { released = true; });
    CHECK_THAT(released);
    errlog::wait_for_flush();
    CHECK_THAT(test::read_file(own / "log").empty());
    g_thread_calls.create = ::pthread_create;
    fmt_dbg("main").fmt_verbose("third");
    errlog::wait_for_flush();
    CHECK_THAT(test::read_file(own / "log").ends_with("Z main: third\n"));
  };
  const char* const expected =
      "^[^ ]*Z main: first`0a\n"
      "[^ ]*Z thread startup: pthread_create failed: Resource temporarily unavailable\n"
      "[^ ]*Z thread startup: error count: 1\n"
      "12:00 second\n"
      "[^ ]*Z thread startup: pthread_create failed: Resource temporarily unavailable\n"
      "[^ ]*Z thread startup: error count: 2\n"
      "[^ ]*Z main: third\n$";
  EXPECT_IN_OWN_PROCESS(story(), testing::ContainsRegex(expected));
}

TEST_F(log_process_test, lines_of_many_threads_survive_failing_starts) {
  const auto story = [] {
    static std::atomic<int> refusals{20};
    g_thread_calls.create = [](pthread_t* id, const pthread_attr_t* attributes,
                               void* (*start)(void*), void* object) {
      return --refusals > 0 ? EAGAIN : ::pthread_create(id, attributes, start, object);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([t] {
        for (int i = 0; i < 50; ++i) fmt_dbg("").fmt_verbose("<%1%.%2%>", t, i);
      });
    }
    for (std::thread& t : threads) t.join();
    errlog::wait_for_flush();
  };
  std::vector<testing::Matcher<const std::string&>> each;
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 50; ++i) {
      each.push_back(HasSubstr("<" + std::to_string(t) + "." + std::to_string(i) + ">"));
    }
  }
  EXPECT_IN_OWN_PROCESS(story(), testing::AllOfArray(each));
}

TEST_F(log_process_test, line_goes_to_standard_error_when_no_lock_can_be_made) {
  const auto story = [] {
    g_thread_calls.cond_init = [](pthread_cond_t*) noexcept { return ENOMEM; };
    fmt_dbg("main").fmt_verbose("a\n");
    errlog::wait_for_flush();
    g_thread_calls.cond_init = platform::make_condition;
    fmt_dbg("main").fmt_verbose("b");
  };
  EXPECT_IN_OWN_PROCESS(story(), testing::ContainsRegex("^main: a`0a\n[^ ]*Z main: b\n"));
}

TEST_F(log_dumper_test, line_goes_to_standard_error_when_the_lock_fails) {
  static thread_local bool locks_fail_here = false;
  const test::replaced taken(
      g_thread_calls.mutex_trylock, +[](pthread_mutex_t* mutex) {
        return locks_fail_here ? EBUSY : ::pthread_mutex_trylock(mutex);
      });
  const test::replaced broken(
      g_thread_calls.mutex_lock, +[](pthread_mutex_t* mutex) {
        return locks_fail_here ? EINVAL : ::pthread_mutex_lock(mutex);
      });
  log_and_flush("x");
  testing::internal::CaptureStderr();
  locks_fail_here = true;
  fmt_dbg("main").fmt_verbose("locked out");
  locks_fail_here = false;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "main: locked out\n");
}

// A forked child.

TEST_F(log_process_test, forked_child_writes_straight_to_standard_error) {
  const auto story = [] {
    const test::temp_dir own;
    errlog::set_log_file(own / "log");
    fmt_dbg("main").fmt_verbose("parent");
    test::held_dumper held;
    fmt_dbg("main").fmt_verbose("queued");
    const pid_t child = ::fork();
    if (child == 0) {
      fmt_dbg("main").fmt_verbose("child\n");
      errlog::log_line_direct("12:00 finished\n", 15, 5, nullptr);
      errlog::wait_for_flush();
      ::_exit(0);
    }
    int status = -1;
    CHECK_THAT(::waitpid(child, &status, 0) == child && status == 0);
    held.let_go();
    errlog::wait_for_flush();
    const std::string text = test::read_file(own / "log");
    CHECK_THAT(text.size() == 2 * 20 + 14 + 14);
  };
  // Without timestamps, and the parent's queued line only once.
  EXPECT_IN_OWN_PROCESS(story(),
                        testing::ContainsRegex("^[^ ]*Z main: parent\nmain: child`0a\nfinished\n"
                                               "[^ ]*Z main: queued\n$"));
}

// The end of the process.

[[noreturn]] void log_for_ever() {
  for (int i = 0;; ++i) fmt_dbg("main").fmt_verbose("a line of a busy process: %1%", i % 3);
}

[[noreturn]] void end_while_the_log_works(int status) {
  const test::temp_dir own;
  errlog::set_log_file(own / "log");
  errlog::set_log_rotate(10000, 1);
  std::thread(log_for_ever).detach();
  while (!muro::file_exists(own / "log.0")) fmt_dbg("main").fmt_verbose("another line");
  std::exit(status);
}

class log_end_test : public log_process_test, public testing::WithParamInterface<int> {};

TEST_P(log_end_test, exit_while_the_log_works_neither_crashes_nor_hangs) {
  for (int round = 0; round < 10; ++round) {
    EXPECT_EXIT(end_while_the_log_works(GetParam()), testing::ExitedWithCode(GetParam()), "");
  }
}

INSTANTIATE_TEST_SUITE_P(log_process_test, log_end_test, testing::Values(0, 1, 42));

}  // namespace
