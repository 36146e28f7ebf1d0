// The log under many threads, and at the end of a process. KORVEL_STRESS multiplies the rounds.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>
#include <thread>

#include "muro/core/log_dumper.h"
#include "muro/sys/files.h"
#include "muro/sys/thread_internal.h"
#include "tests/muro/core/log_fixture.h"

namespace {

using muro::errlog;
using muro::fmt_dbg;

int stress() {
  const char* const asked = std::getenv("KORVEL_STRESS");
  return asked != nullptr ? std::max(1, std::atoi(asked)) : 1;
}

class log_stress_test : public test::log_test {
 protected:
  static constexpr int kThreads = 6;
  const int lines_ = 2000 * stress();

  std::string generation(int k) const { return path() + "." + std::to_string(k); }

  /// All that is in the file and its old generations, oldest first.
  std::string all_generations() const {
    errlog::wait_for_flush();
    std::string all = test::read_file(path());
    for (int k = 0; muro::file_exists(generation(k)); ++k) {
      all = test::read_file(generation(k)) + all;
    }
    return all;
  }

  void log_numbered(int thread) const {
    for (int i = 0; i < lines_; ++i) {
      fmt_dbg("").fmt_verbose("%1% %2% %3%", thread, i,
                              std::string(static_cast<std::size_t>(i) % 50, 'x'));
      if (i % (37 + thread) == 0) errlog::wait_for_flush();
    }
  }

  void log_from_all_threads() const {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back([this, t] { log_numbered(t); });
    for (std::thread& t : threads) t.join();
  }

  void expect_each_line_once_in(const std::string& all) const {
    std::istringstream text(all);
    std::map<int, int> next;
    std::string line;
    while (std::getline(text, line)) {
      if (line.find(" errlog: log file ") != std::string::npos) continue;  // of a refused file
      std::istringstream words(line);
      std::string stamp;
      int thread, number;
      ASSERT_TRUE(words >> stamp >> thread >> number) << line;
      ASSERT_EQ(stamp, kStart);
      ASSERT_EQ(number, next[thread]++) << thread;
    }
    ASSERT_EQ(next.size(), static_cast<std::size_t>(kThreads));
    for (const auto& [thread, count] : next) EXPECT_EQ(count, lines_) << thread;
  }
};

TEST_F(log_stress_test, every_line_is_written_once_while_threads_log_flush_and_rotate) {
  errlog::set_log_rotate(20000, 100000);
  log_from_all_threads();
  const std::string all = all_generations();
  EXPECT_TRUE(muro::file_exists(generation(3))) << "nothing was rotated";
  expect_each_line_once_in(all);
}

TEST_F(log_stress_test, settings_change_under_the_lines) {
  std::atomic<bool> done{false};
  std::thread changer([&] {
    for (int i = 0; !done; ++i) {
      errlog::set_log_file(i % 2 == 0 ? path() : path() + "-other");
      errlog::set_log_cut(i % 3 == 0 ? 5000 : 0);
      errlog::set_log_rotate(i % 5 == 0 ? 5000 : 0, 2);
      errlog::set_log_stderr_timestamps(i % 7 == 0);
    }
  });
  log_from_all_threads();
  done = true;
  changer.join();
  errlog::set_log_cut(0);
  errlog::set_log_rotate(0, 0);
  errlog::set_log_file(path());
  log_and_flush("last");
  EXPECT_TRUE(test::read_file(path()).ends_with(line("main: last")));
}

TEST_F(log_stress_test, every_line_is_echoed_once_while_the_file_is_taken_away) {
  errlog::set_log_to_stderr(true);
  std::atomic<bool> done{false};
  std::thread remover([&] {
    while (!done) {
      ::unlink(path().c_str());
      ::truncate(path().c_str(), 3);
    }
  });
  testing::internal::CaptureStderr();
  log_from_all_threads();
  errlog::wait_for_flush();
  const std::string echo = testing::internal::GetCapturedStderr();
  done = true;
  remover.join();
  expect_each_line_once_in(echo);
}

// The end of the process.

/// With the settings as they are when a program starts.
class log_exit_test : public test::own_process_test {};

/// In a process of its own: threads log, some flush, the main thread ends it all after `lines`.
[[noreturn]] void exit_in_the_middle(int status, int lines, const std::string& folder) {
  ::alarm(120);  // a hang ends as a death that the parent sees
  ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
  errlog::set_log_file(folder + "/log");
  errlog::set_log_rotate(3000, 1);
  for (int t = 0; t < 3; ++t) {
    std::thread([t] {
      for (int i = 0;; ++i) {
        fmt_dbg("main").fmt_verbose("a line of a busy process: %1% %2%", t, i % 3);
        if (t == 0 && i % 5 == 0) errlog::wait_for_flush();
      }
    }).detach();
  }
  for (int i = 0; i < lines; ++i) fmt_dbg("main").fmt_verbose("line %1%", i);
  if (lines % 2 == 0) errlog::wait_for_flush();
  std::exit(status);
}

void exit_many_times(int wanted, int rounds) {
  const test::temp_dir own;
  for (int round = 0; round < rounds; ++round) {
    const pid_t child = ::fork();
    if (child == 0) exit_in_the_middle(wanted, round % 50, own.path());
    int status = -1;
    test::check(::waitpid(child, &status, 0) == child, "waitpid");
    test::check(WIFEXITED(status) && WEXITSTATUS(status) == wanted,
                "round " + std::to_string(round) + " ended with " + std::to_string(status));
  }
}

class log_exit_status_test : public log_exit_test, public testing::WithParamInterface<int> {};

TEST_P(log_exit_status_test, stays_when_the_process_ends_in_the_middle_of_many_threads_lines) {
  EXPECT_IN_OWN_PROCESS(exit_many_times(GetParam(), 100 * stress()), "");
}

INSTANTIATE_TEST_SUITE_P(log_exit_test, log_exit_status_test, testing::Values(0, 1, 42));

// A thread that cannot be started.

std::atomic<int> refusals_left;

int refuse_some(pthread_t* id, const pthread_attr_t* attributes, void* (*start)(void*),
                void* object) {
  return refusals_left-- > 0 ? EAGAIN : ::pthread_create(id, attributes, start, object);
}

void lines_survive_refusals(int refusals) {
  const test::temp_dir own;
  errlog::set_log_file(own / "log");
  refusals_left = refusals;
  muro::detail::g_thread_calls.create = refuse_some;
  for (int i = 0; i < 5; ++i) {
    fmt_dbg("").fmt_verbose("<%1%>", i);
    errlog::wait_for_flush();
  }
  const std::string in_file = test::read_file(own / "log");
  for (int i = 0; i < 5; ++i) {
    const bool there = in_file.find("<" + std::to_string(i) + ">\n") != std::string::npos;
    test::check(there == (i >= refusals), std::to_string(i));
  }
}

TEST_F(log_exit_test, thread_that_is_refused_once_is_there_for_the_next_line) {
  EXPECT_IN_OWN_PROCESS(lines_survive_refusals(1),
                        testing::AllOf(testing::HasSubstr("<0>\n"), testing::HasSubstr("<4>\n")));
}

TEST_F(log_exit_test, thread_that_is_refused_for_ever_leaves_the_lines_to_standard_error) {
  EXPECT_IN_OWN_PROCESS(
      lines_survive_refusals(1000000),
      testing::ContainsRegex("<0>\n(.*\n)*.*<1>\n(.*\n)*.*<2>\n(.*\n)*.*<3>\n(.*\n)*.*<4>\n"));
}

}  // namespace
