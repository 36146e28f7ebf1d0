#include <gtest/gtest.h>

#include <fstream>

#include "muro/sys/process.h"
#include "tests/support/descriptors.h"
#include "tests/support/forked.h"
#include "tests/support/processes.h"
#include "tests/support/signal_storm.h"
#include "tests/support/stepping_clock.h"
#include "tests/support/stopwatch.h"
#include "tests/support/temp_dir.h"

namespace {

using muro::process;
using test::child;
using test::failure_of;

long long now_ms = 0;
std::vector<unsigned long long> pauses_us;

/// A clock that only the pauses move on.
class fake_time {
 public:
  fake_time() {
    now_ms = 5000;
    pauses_us.clear();
    muro::x_relative_time = [] { return now_ms; };
    muro::x_pause_us = [](unsigned long long us) {
      pauses_us.push_back(us);
      now_ms += static_cast<long long>(us / 1000);
    };
  }
  ~fake_time() {
    muro::x_relative_time = nullptr;
    muro::x_pause_us = nullptr;
  }
  fake_time(const fake_time&) = delete;
  fake_time& operator=(const fake_time&) = delete;
};

/// "PID SESSION PARENT", as the child wrote them.
struct session {
  explicit session(const std::string& file) { std::ifstream(file) >> pid >> id >> parent; }
  pid_t pid = 0;
  pid_t id = 0;
  pid_t parent = 0;
};

bool exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

pid_t fail_to_fork() {
  errno = EAGAIN;
  return -1;
}

class process_system : public ::testing::Test {
 protected:
  ~process_system() override { EXPECT_TRUE(test::has_no_children()); }

  test::temp_dir folder_;
  const std::string file_ = folder_ / "told";

 private:
  test::system_calls_restored restored_;
};

TEST_F(process_system, gives_the_exit_status) {
  const test::short_pauses quick;
  EXPECT_EQ(process::system(child, {"exit", "0"}, 30), 0);
  EXPECT_EQ(process::system(child, {"exit", "255"}, 30), 255);
}

TEST_F(process_system, gives_the_negated_signal) {
  const test::short_pauses quick;
  EXPECT_EQ(process::system(child, {"signal", std::to_string(SIGTERM)}, 30), -SIGTERM);
}

TEST_F(process_system, program_that_is_not_there_gives_minus_nine) {
  const test::short_pauses quick;
  EXPECT_EQ(process::system("/no/such/program", {}, 30), -9);
}

TEST_F(process_system, looks_again_after_a_hundred_milliseconds) {
  const test::stopwatch watch;
  EXPECT_EQ(process::system(child, {"close-output", "3", "20"}, 30), 3);
  EXPECT_GE(watch.ms(), 100);
}

TEST_F(process_system, kills_and_reaps_when_the_limit_is_past) {
  const fake_time time;
  EXPECT_EQ(failure_of([] { process::system(child, {"silent"}, 2); }), ":Error in 'system'");
  EXPECT_TRUE(test::has_no_children());
  // From 5 s on the deadline is 7 s, and 8 s is the first second past it.
  EXPECT_EQ(now_ms, 8000);
  EXPECT_EQ(pauses_us, std::vector<unsigned long long>(30, 100000));
}

TEST_F(process_system, limit_lasts_as_long_when_the_wall_clock_is_set) {
  for (const long step_s : {3600L, -3600L}) {
    const test::stepping_clock clock(step_s);
    const test::short_pauses quick;
    const test::stopwatch watch;
    EXPECT_EQ(failure_of([] { process::system(child, {"silent"}, 1); }), ":Error in 'system'");
    EXPECT_GE(watch.ms(), 1000) << step_s;
    EXPECT_LT(watch.ms(), 10000) << step_s;
  }
}

TEST_F(process_system, limit_lasts_as_long_under_signals) {
  const test::signal_storm storm;
  const test::stopwatch watch;
  EXPECT_EQ(failure_of([] { process::system(child, {"silent"}, 0); }), ":Error in 'system'");
  EXPECT_LT(watch.ms(), 10000);
}

TEST_F(process_system, limit_of_zero_lasts_to_the_end_of_the_second) {
  const fake_time time;
  now_ms = 5900;
  EXPECT_EQ(failure_of([] { process::system(child, {"silent"}, 0); }), ":Error in 'system'");
  EXPECT_EQ(pauses_us.size(), 1u);
}

TEST_F(process_system, negative_limit_other_than_minus_one_is_past_at_once) {
  const fake_time time;
  EXPECT_EQ(failure_of([] { process::system(child, {"silent"}, -2); }), ":Error in 'system'");
  EXPECT_TRUE(pauses_us.empty());
}

TEST_F(process_system, largest_limit_does_not_wrap) {
  const test::short_pauses quick;
  EXPECT_EQ(process::system(child, {"exit", "6"}, 0x7fffffffffffffffLL), 6);
}

TEST_F(process_system, stopped_child_has_not_ended) {
  const test::short_pauses quick;
  static int reports;
  reports = 0;
  process_priv::calls.waitpid = [](pid_t pid, int* status, int flags) -> pid_t {
    if (++reports > 3) return ::waitpid(pid, status, flags);
    *status = (SIGSTOP << 8) | 0x7f;
    return pid;
  };
  EXPECT_EQ(process::system(child, {"exit", "9"}, 30), 9);
  EXPECT_GT(reports, 3);
}

TEST_F(process_system, failing_fork_throws) {
  process_priv::calls.fork = fail_to_fork;
  EXPECT_EQ(failure_of([] { process::system(child, {"exit", "0"}, 30); }), ":Error in 'system'");
  EXPECT_EQ(failure_of([] { process::system(child, {"exit", "0"}, -1); }), ":Error in 'system'");
}

TEST_F(process_system, child_that_cannot_be_asked_for_throws) {
  const auto before = ::signal(SIGCHLD, SIG_IGN);  // the system reaps children itself
  const test::short_pauses quick;
  EXPECT_EQ(failure_of([] { process::system(child, {"exit", "0"}, 30); }), ":Error in 'system'");
  ::signal(SIGCHLD, before);
}

TEST_F(process_system, leaves_no_child_when_the_clock_throws) {
  static int asked;
  asked = 0;
  muro::x_relative_time = []() -> long long {
    if (++asked > 1) throw muro::exception("no time");
    return 0;
  };
  EXPECT_EQ(failure_of([] { process::system(child, {"silent"}, 30); }), "no time");
  muro::x_relative_time = nullptr;
  EXPECT_TRUE(test::has_no_children());
}

TEST_F(process_system, program_has_the_parents_standard_descriptors_and_no_others) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[1], 1) != 1 || ::dup2(0, 700) != 700) return false;
    char bytes[10];
    return process::system(child, {"print", "seen"}, 30) == 0 &&
           ::read(ends[0], bytes, sizeof bytes) == 4 &&
           process::system(child, {"descriptors", file_}, 30) == 0 &&
           test::read_file(file_) == "0 1 2 ";
  }));
}

TEST_F(process_system, without_a_limit_it_returns_while_the_program_runs) {
  EXPECT_EQ(process::system(child, {"session", file_, "hang"}, -1), 0);
  ASSERT_TRUE(test::eventually([&] { return exists(file_); }));
  const session told(file_);
  EXPECT_EQ(::kill(told.pid, SIGKILL), 0);
}

TEST_F(process_system, without_a_limit_the_program_is_nobodys_child_in_a_session_of_its_own) {
  EXPECT_EQ(process::system(child, {"session", file_}, -1), 0);
  ASSERT_TRUE(test::eventually([&] { return exists(file_); }));
  const session told(file_);
  EXPECT_NE(told.parent, ::getpid());
  EXPECT_NE(told.id, ::getsid(0));
  EXPECT_NE(told.id, told.pid);  // so that it cannot get a terminal
  EXPECT_TRUE(test::has_no_children());
}

TEST_F(process_system, without_a_limit_the_outcome_is_zero_whatever_happens) {
  EXPECT_EQ(process::system("/no/such/program", {}, -1), 0);
  EXPECT_EQ(process::system(child, {"exit", "7"}, -1), 0);
}

TEST_F(process_system, detached_program_has_no_descriptor_of_the_parents_but_the_standard_ones) {
  EXPECT_EQ(process::system(child, {"descriptors", file_}, -1), 0);
  ASSERT_TRUE(test::eventually([&] { return exists(file_); }));
  EXPECT_EQ(test::read_file(file_), "0 1 2 ");
}

TEST_F(process_system, failed_second_fork_never_runs_the_program_in_the_waited_process) {
  static int forks;
  forks = 0;
  process_priv::calls.fork = [] { return ++forks == 1 ? ::fork() : fail_to_fork(); };
  EXPECT_EQ(process::system(child, {"session", file_}, -1), 0);
  EXPECT_FALSE(exists(file_));
}

TEST_F(process_system, detaching_waits_on_after_a_signal) {
  static int interruptions;
  interruptions = 3;
  process_priv::calls.waitpid = [](pid_t pid, int* status, int flags) -> pid_t {
    if (interruptions-- <= 0) return ::waitpid(pid, status, flags);
    errno = EINTR;
    return -1;
  };
  EXPECT_EQ(process::system(child, {"exit", "0"}, -1), 0);
  EXPECT_TRUE(test::has_no_children());
}

class system_immediate : public process_system {
 protected:
  static std::string run(std::vector<std::string> args, long timeout_s = 20) {
    exit_code = 12345;
    return process::system_immediate(child, args, &exit_code, timeout_s);
  }
  static inline long long exit_code = 0;
};

TEST_F(system_immediate, gives_text_and_exit_code) {
  EXPECT_EQ(run({"print", "text", "6"}), "text");
  EXPECT_EQ(exit_code, 6);
}

TEST_F(system_immediate, works_without_a_time_limit) {
  EXPECT_EQ(run({"print", "text"}, 0), "text");
  EXPECT_EQ(run({"print", "text"}, -1), "text");
}

TEST_F(system_immediate, gathers_more_than_one_read_brings) {
  EXPECT_EQ(run({"flood", "300000"}), std::string(300000, 'f'));
  EXPECT_EQ(exit_code, 0);
}

TEST_F(system_immediate, program_that_is_not_there_gives_no_text_and_minus_nine) {
  long long code = 0;
  EXPECT_EQ(process::system_immediate("/no/such/program", {}, &code, 20), "");
  EXPECT_EQ(code, -9);
}

TEST_F(system_immediate, does_without_an_exit_code) {
  EXPECT_EQ(process::system_immediate(child, {"print", "text"}, nullptr, 20), "text");
}

TEST_F(system_immediate, does_not_wait_for_a_child_whose_exit_code_nobody_wants) {
  const test::stopwatch watch;
  EXPECT_EQ(process::system_immediate(child, {"close-output", "0", "30000"}, nullptr, 20), "");
  EXPECT_LT(watch.ms(), 15000);
}

TEST_F(system_immediate, child_that_ends_soon_after_its_output_is_waited_for) {
  EXPECT_EQ(run({"close-output", "8", "20"}), "");
  EXPECT_EQ(exit_code, 8);
}

TEST_F(system_immediate, child_that_ends_soon_is_waited_for_without_a_descriptor_too) {
  EXPECT_TRUE(test::holds_in_a_fork([] {
    process_priv::calls.fork = [] {
      const pid_t pid = ::fork();
      if (pid > 0) static const test::descriptor_limit none_for_the_wait(1);
      return pid;
    };
    return run({"close-output", "8", "20"}).empty() && exit_code == 8;
  }));
}

TEST_F(system_immediate, child_that_goes_on_after_its_output_is_killed_with_an_unknown_code) {
  const test::stopwatch watch;
  EXPECT_EQ(run({"close-output", "8", "30000"}), "");
  EXPECT_EQ(exit_code, -1);
  EXPECT_GE(watch.ms(), 100);
  EXPECT_LT(watch.ms(), 5000);
}

TEST_F(system_immediate, child_that_ends_soon_has_its_time_under_signals_too) {
  const test::signal_storm storm;
  EXPECT_EQ(run({"close-output", "8", "20"}), "");
  EXPECT_EQ(exit_code, 8);
}

TEST_F(system_immediate, asks_for_the_status_once) {
  static int asked;
  asked = 0;
  process_priv::calls.waitpid = [](pid_t pid, int* status, int flags) {
    ++asked;
    return ::waitpid(pid, status, flags);
  };
  run({"print", "text"});
  EXPECT_EQ(asked, 1);
}

TEST_F(system_immediate, standard_input_stays_open_and_empty_until_the_limit) {
  EXPECT_EQ(failure_of([] { run({"echo"}, 1); }), ":Error in 'read'");
  EXPECT_TRUE(test::has_no_children());
}

TEST_F(system_immediate, failing_fork_passes_on) {
  process_priv::calls.fork = fail_to_fork;
  EXPECT_EQ(failure_of([] {
              run({"exit", "0"});
            }),
            ":Error from 'fork' (called in 'init_'): 11, Resource temporarily unavailable");
}

}  // namespace
