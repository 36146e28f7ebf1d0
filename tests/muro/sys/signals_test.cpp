#include "muro/sys/thread.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "muro/sys/time.h"

#include "tests/muro/sys/thread_support.h"

namespace {

using test::fresh_process;

}  // namespace

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
