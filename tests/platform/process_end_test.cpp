#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/platform.h"
#include "tests/support/descriptors.h"
#include "tests/support/signal_storm.h"
#include "tests/support/stopwatch.h"

namespace {

/// A child that ends after a while or, for -1, when it is killed; reaped at the latest with this.
class sleeper {
 public:
  explicit sleeper(int ms) : pid_(::fork()) {
    if (pid_ != 0) return;
    if (ms == -1) ::pause();
    ::usleep(static_cast<useconds_t>(ms) * 1000);
    ::_exit(7);
  }
  ~sleeper() {
    if (pid_ == -1) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  sleeper(const sleeper&) = delete;
  sleeper& operator=(const sleeper&) = delete;

  pid_t pid() const { return pid_; }

  /// What waitpid says now; the status only if the child was reaped by this.
  bool has_ended() {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
    pid_ = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 7;
  }

 private:
  pid_t pid_;
};

TEST(await_process_end, waits_for_the_end_and_leaves_the_status) {
  sleeper child(30);
  EXPECT_TRUE(platform::await_process_end(child.pid(), 20000));
  EXPECT_TRUE(child.has_ended());
}

TEST(await_process_end, does_not_wait_for_one_that_has_ended_before) {
  sleeper child(0);
  siginfo_t ended{};
  ::waitid(P_PID, static_cast<id_t>(child.pid()), &ended, WEXITED | WNOWAIT);
  EXPECT_TRUE(platform::await_process_end(child.pid(), 20000));
  EXPECT_TRUE(child.has_ended());
}

TEST(await_process_end, waits_no_longer_than_it_may) {
  sleeper child(-1);
  const test::stopwatch watch;
  EXPECT_TRUE(platform::await_process_end(child.pid(), 50));
  EXPECT_GE(watch.ms(), 50);
  EXPECT_LT(watch.ms(), 15000);
  EXPECT_FALSE(child.has_ended());
}

TEST(await_process_end, signals_neither_shorten_nor_prolong_it) {
  sleeper child(-1);
  const test::signal_storm storm;
  const test::stopwatch watch;
  EXPECT_TRUE(platform::await_process_end(child.pid(), 100));
  EXPECT_GE(watch.ms(), 100);
  EXPECT_LT(watch.ms(), 15000);
}

TEST(await_process_end, says_when_no_descriptor_is_left) {
  sleeper child(-1);
  const test::descriptor_limit none(3);
  EXPECT_FALSE(platform::await_process_end(child.pid(), 20000));
}

TEST(await_process_end, leaves_no_descriptor_open) {
  sleeper child(0);
  const auto before = test::open_descriptors();
  platform::await_process_end(child.pid(), 20000);
  EXPECT_EQ(test::open_descriptors(), before);
}

}  // namespace
