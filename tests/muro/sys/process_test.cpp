#include "muro/sys/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/broken_pipes.h"
#include "tests/support/descriptors.h"
#include "tests/support/processes.h"
#include "tests/support/signal_storm.h"
#include "tests/support/stopwatch.h"

namespace {

using muro::process;
using test::child;
using test::failure_of;

std::string read_all(process& p) {
  std::string text;
  while (p.read(process::string_reader, &text, 20)) {
  }
  return text;
}

long long exit_code_when_done(process& p) {
  EXPECT_TRUE(test::eventually([&] { return p.done(); }));
  return p.exit_code();
}

int kills = 0;
int counting_kill(pid_t pid, int signal) {
  ++kills;
  return ::kill(pid, signal);
}

class process_test : public ::testing::Test {
 protected:
  process_test() { kills = 0; }
  ~process_test() override { EXPECT_TRUE(test::has_no_children()); }
  void count_kills() { process_priv::calls.kill = counting_kill; }

 private:
  test::system_calls_restored restored_;
};

TEST_F(process_test, without_a_child_is_done_and_knows_no_exit_code) {
  process p;
  EXPECT_TRUE(p.done());
  EXPECT_EQ(p.pid(), -1);
  EXPECT_EQ(p.stdin_write_end(), -1);
  EXPECT_EQ(p.stdout_read_end(), -1);
  EXPECT_EQ(p.exit_code(), -1);
}

TEST_F(process_test, reads_what_the_child_prints) {
  process p(child, {"print", "hello"});
  EXPECT_GT(p.pid(), 0);
  EXPECT_EQ(read_all(p), "hello");
}

TEST_F(process_test, feeds_the_childs_standard_input) {
  process p(child, {"echo"});
  EXPECT_EQ(::write(p.stdin_write_end(), "ping", 4), 4);
  std::string text;
  EXPECT_TRUE(p.read(process::string_reader, &text, 20));
  EXPECT_EQ(text, "ping");
}

TEST_F(process_test, exit_code_is_unknown_until_the_child_is_done) {
  process p(child, {"exit", "200"});
  EXPECT_EQ(p.exit_code(), -1);
  EXPECT_EQ(exit_code_when_done(p), 200);
  EXPECT_EQ(p.pid(), -1);
  EXPECT_TRUE(p.done());
}

TEST_F(process_test, death_by_a_signal_is_its_negated_number) {
  process p(child, {"signal", std::to_string(SIGTERM)});
  EXPECT_EQ(exit_code_when_done(p), -SIGTERM);
}

TEST_F(process_test, program_that_is_not_there_gives_minus_nine) {
  process p("/no/such/program", {});
  EXPECT_EQ(exit_code_when_done(p), -9);
}

TEST_F(process_test, program_without_a_slash_is_found_in_the_path) {
  process p("sh", {"-c", "exit 3"});
  EXPECT_EQ(exit_code_when_done(p), 3);
}

TEST_F(process_test, arguments_arrive_as_they_are) {
  process p(child, {"arguments", "two words", "", "\"$HOME\" *", "-x"});
  const std::string text = read_all(p);
  EXPECT_EQ(text.substr(text.find('\n') + 1), child + "\ntwo words\n\n\"$HOME\" *\n-x\n");
}

TEST_F(process_test, running_child_is_not_done) {
  process p(child, {"silent"});
  EXPECT_FALSE(p.done());
  EXPECT_GT(p.pid(), 0);
}

TEST_F(process_test, stopped_child_is_not_done) {
  process p(child, {"stop"});
  EXPECT_TRUE(p.read(nullptr, nullptr, 20));
  siginfo_t stopped{};
  ::waitid(P_PID, static_cast<id_t>(p.pid()), &stopped, WSTOPPED | WNOWAIT);
  EXPECT_FALSE(p.done());
}

TEST_F(process_test, status_that_tells_of_a_stop_is_not_an_end) {
  process p(child, {"silent"});
  process_priv::calls.waitpid = [](pid_t pid, int* status, int) {
    *status = (SIGSTOP << 8) | 0x7f;
    return pid;
  };
  EXPECT_FALSE(p.done());
  process_priv::calls.waitpid = ::waitpid;
  EXPECT_EQ(p.exit_code(), -1);
}

TEST_F(process_test, child_reaped_by_somebody_else_is_forgotten_and_never_signalled) {
  count_kills();
  {
    process p(child, {"exit", "0"});
    ASSERT_EQ(::waitpid(p.pid(), nullptr, 0), p.pid());
    EXPECT_EQ(failure_of([&] { p.done(); }), ":Error in 'done'");
    EXPECT_EQ(p.pid(), -1);
    EXPECT_TRUE(p.done());
  }
  EXPECT_EQ(kills, 0);
}

TEST_F(process_test, child_reaped_by_somebody_else_is_not_signalled_at_the_end) {
  count_kills();
  {
    process p(child, {"exit", "0"});
    ASSERT_EQ(::waitpid(p.pid(), nullptr, 0), p.pid());
  }
  EXPECT_EQ(kills, 0);
}

TEST_F(process_test, failure_to_ask_keeps_the_child) {
  process p(child, {"silent"});
  process_priv::calls.waitpid = [](pid_t, int*, int) {
    errno = EINVAL;
    return -1;
  };
  EXPECT_EQ(failure_of([&] { p.done(); }), ":Error in 'done'");
  process_priv::calls.waitpid = ::waitpid;
  EXPECT_GT(p.pid(), 0);
}

TEST_F(process_test, killing_ends_reaps_and_stores_the_code_it_is_given) {
  process p(child, {"silent"});
  p.kill(-77);
  EXPECT_TRUE(test::has_no_children());
  EXPECT_EQ(p.pid(), -1);
  EXPECT_EQ(p.exit_code(), -77);
}

TEST_F(process_test, killing_again_or_without_a_child_does_nothing) {
  count_kills();
  process p;
  p.kill(5);
  EXPECT_EQ(p.exit_code(), -1);
  EXPECT_EQ(kills, 0);
}

TEST_F(process_test, killing_a_child_that_has_ended_sends_no_signal) {
  count_kills();
  process p(child, {"exit", "1"});
  test::await_end(p.pid());
  p.kill(-9);
  EXPECT_EQ(kills, 0);
  EXPECT_EQ(p.exit_code(), -9);
}

TEST_F(process_test, killing_waits_on_after_a_signal) {
  static int interruptions;
  interruptions = 3;
  process p(child, {"silent"});
  process_priv::calls.waitpid = [](pid_t pid, int* status, int flags) -> pid_t {
    if (flags != 0 || interruptions-- <= 0) return ::waitpid(pid, status, flags);
    errno = EINTR;
    return -1;
  };
  p.kill(-9);
  EXPECT_TRUE(test::has_no_children());
}

TEST_F(process_test, destroying_kills_the_child_and_keeps_errno) {
  process_priv::calls.kill = [](pid_t pid, int signal) {
    counting_kill(pid, signal);
    errno = EPERM;
    return -1;
  };
  {
    process p(child, {"silent"});
    errno = ENOTTY;
  }
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(kills, 1);
  EXPECT_TRUE(test::has_no_children());
}

TEST_F(process_test, leaves_no_descriptor) {
  const std::set<int> before = test::open_descriptors();
  {
    process p(child, {"print", "x"});
    EXPECT_EQ(test::open_descriptors().size(), before.size() + 2);
  }
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST_F(process_test, pipe_ends_are_not_for_other_children) {
  process p(child, {"silent"});
  EXPECT_TRUE(::fcntl(p.stdin_write_end(), F_GETFD) & FD_CLOEXEC);
  EXPECT_TRUE(::fcntl(p.stdout_read_end(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(process_test, read_tells_the_end_of_the_output) {
  process p(child, {"exit", "0"});
  EXPECT_FALSE(p.read(nullptr, nullptr, 20));
  EXPECT_FALSE(p.read(nullptr, nullptr, 0));
}

TEST_F(process_test, read_without_a_callback_drops_the_bytes) {
  process p(child, {"print", "dropped"});
  EXPECT_TRUE(p.read(nullptr, nullptr, 20));
  EXPECT_FALSE(p.read(nullptr, nullptr, 20));
}

TEST_F(process_test, read_brings_at_most_8192_bytes) {
  process p(child, {"flood", "20000"});
  std::vector<std::size_t> sizes;
  const auto remember = [](void* context, const char*, std::size_t length) {
    static_cast<std::vector<std::size_t>*>(context)->push_back(length);
  };
  while (p.read(remember, &sizes, 20)) {
  }
  EXPECT_GE(sizes.size(), 3u);
  EXPECT_EQ(*std::max_element(sizes.begin(), sizes.end()), 8192u);
}

TEST_F(process_test, read_that_gets_nothing_in_time_kills_the_child) {
  process p(child, {"silent"});
  const test::stopwatch watch;
  EXPECT_EQ(failure_of([&] { p.read(nullptr, nullptr, 1); }), ":Error in 'read'");
  EXPECT_GE(watch.ms(), 980);
  EXPECT_TRUE(test::has_no_children());
  EXPECT_EQ(p.exit_code(), -9);
}

TEST_F(process_test, read_without_an_output_to_read_throws) {
  process p;
  EXPECT_EQ(failure_of([&] { p.read(nullptr, nullptr, 1); }), ":Error in 'read'");
}

TEST_F(process_test, read_that_fails_throws) {
  process p(child, {"silent"});
  // A descriptor that cannot be read takes the pipe's place.
  const int write_only = ::open("/dev/null", O_WRONLY);
  ASSERT_EQ(::dup2(write_only, p.stdout_read_end()), p.stdout_read_end());
  ::close(write_only);
  EXPECT_EQ(failure_of([&] { p.read(nullptr, nullptr, 20); }), ":Error in 'read'");
  EXPECT_EQ(failure_of([&] { p.read(nullptr, nullptr, 0); }), ":Error in 'read'");
}

TEST_F(process_test, read_from_a_descriptor_that_is_gone_fails_at_once_and_leaves_the_child) {
  process p(child, {"silent"});
  const int number = p.stdout_read_end();
  const int kept = ::dup(number);
  ::close(number);
  EXPECT_EQ(failure_of([&] { p.read(nullptr, nullptr, 20); }), ":Error in 'read'");
  EXPECT_FALSE(p.done());
  EXPECT_GT(p.pid(), 0);
  ::dup2(kept, number);
  ::close(kept);
}

TEST_F(process_test, read_without_limit_outlives_signals) {
  process p(child, {"echo"});
  const test::signal_storm storm;
  std::thread writer([&] {
    while (storm.sent() < 20) std::this_thread::yield();
    EXPECT_EQ(::write(p.stdin_write_end(), "late", 4), 4);
  });
  std::string text;
  EXPECT_TRUE(p.read(process::string_reader, &text, 0));
  EXPECT_EQ(text, "late");
  writer.join();
}

TEST_F(process_test, object_may_be_used_again_after_its_child_is_done) {
  process p(child, {"exit", "4"});
  EXPECT_EQ(exit_code_when_done(p), 4);
  process::options defaults;
  p.init_(child, {"print", "again", "5"}, defaults);
  EXPECT_EQ(p.exit_code(), -1);
  EXPECT_EQ(read_all(p), "again");
  EXPECT_EQ(exit_code_when_done(p), 5);
}

TEST_F(process_test, object_whose_child_is_not_reaped_starts_no_other) {
  process p(child, {"silent"});
  const pid_t pid = p.pid();
  process::options defaults;
  EXPECT_EQ(failure_of([&] { p.init_(child, {"silent"}, defaults); }), ":Error in 'init_'");
  EXPECT_EQ(p.pid(), pid);
}

TEST_F(process_test, any_failing_pipe_throws_and_leaves_no_descriptor) {
  const std::set<int> before = test::open_descriptors();
  for (int working = 0; working < 2; ++working) {
    const test::broken_pipes others(working);
    EXPECT_EQ(failure_of([] { process p(child, {"silent"}); }),
              ":Error from 'pipe' (called in 'init_'): 24, Too many open files");
    EXPECT_EQ(test::open_descriptors(), before) << working;
  }
}

TEST_F(process_test, failing_fork_throws_and_leaves_no_descriptor) {
  const std::set<int> before = test::open_descriptors();
  process_priv::calls.fork = [] {
    errno = EAGAIN;
    return -1;
  };
  EXPECT_EQ(failure_of([] { process p(child, {"silent"}); }),
            ":Error from 'fork' (called in 'init_'): 11, Resource temporarily unavailable");
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST_F(process_test, starting_leaves_the_parents_signal_mask) {
  sigset_t before;
  sigset_t after;
  ::sigemptyset(&before);
  ::sigaddset(&before, SIGUSR2);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  process p(child, {"exit", "0"});
  ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int number = 1; number < 32; ++number)
    EXPECT_EQ(::sigismember(&after, number), number == SIGUSR2 ? 1 : 0) << number;
  ::sigemptyset(&before);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(get_max_fds, is_the_size_of_the_descriptor_table) {
  EXPECT_EQ(muro::get_max_fds(), ::getdtablesize());
  test::descriptor_limit limit(200);
  EXPECT_EQ(muro::get_max_fds(), 200);
}

}  // namespace
