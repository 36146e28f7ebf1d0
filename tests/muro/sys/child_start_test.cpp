#include "muro/sys/child_start.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>

#include "muro/sys/pipe.h"
#include "muro/sys/process.h"
#include "tests/support/descriptors.h"
#include "tests/support/processes.h"
#include "tests/support/temp_dir.h"

namespace {

using muro::process;
using process_priv::child_plan;
using test::child;
using test::holds_in_a_fork;

/// What the child says of its descriptors.
std::string descriptors_of_a_child(process::options& options) {
  const test::temp_dir folder;
  process p;
  p.init_(child, {"descriptors", folder / "list"}, options);
  while (p.read(nullptr, nullptr, 20)) {
  }
  return test::read_file(folder / "list");
}

std::string descriptors_of_a_child() {
  process::options defaults;
  return descriptors_of_a_child(defaults);
}

TEST(child_start, child_has_only_the_standard_descriptors) {
  EXPECT_TRUE(holds_in_a_fork([] {
    for (const int number : {3, 10, 63, 64, 500, 901}) ::dup2(2, number);
    return descriptors_of_a_child() == "0 1 2 ";
  }));
}

TEST(child_start, kept_descriptors_keep_their_numbers_even_if_marked_close_on_exec) {
  EXPECT_TRUE(holds_in_a_fork([] {
    for (const int number : {50, 51, 52, 700}) ::dup2(2, number);
    ::fcntl(700, F_SETFD, FD_CLOEXEC);
    const std::set<int> keep = {51, 700};
    process::options options;
    options.descriptors_to_keep = &keep;
    return descriptors_of_a_child(options) == "0 1 2 51 700 ";
  }));
}

TEST(child_start, kept_numbers_that_are_not_open_or_no_descriptors_are_passed_over) {
  EXPECT_TRUE(holds_in_a_fork([] {
    std::set<int> keep = {INT_MIN, -1, INT_MAX, 98765};
    for (int number = 3; number < 40; ++number) {
      if (!test::is_open(number)) keep.insert(number);  // the pipes will get these
    }
    process::options options;
    options.descriptors_to_keep = &keep;
    return descriptors_of_a_child(options) == "0 1 2 ";
  }));
}

TEST(child_start, kept_standard_descriptors_are_the_pipes_all_the_same) {
  EXPECT_TRUE(holds_in_a_fork([] {
    const std::set<int> keep = {0, 1, 2};
    process p;
    process::options options;
    options.descriptors_to_keep = &keep;
    p.init_(child, {"print", "piped"}, options);
    std::string text;
    return p.read(process::string_reader, &text, 20) && text == "piped";
  }));
}

/// Closes those of 0, 1 and 2 whose bit is set, then talks with a child.
bool talks_with_closed(unsigned closed) {
  return holds_in_a_fork([closed] {
    for (int number = 0; number < 3; ++number)
      if (closed & (1u << number)) ::close(number);
    process p(child, {"echo"});
    std::string text;
    return ::write(p.stdin_write_end(), "ping", 4) == 4 &&
           p.read(process::string_reader, &text, 20) && text == "ping";
  });
}

TEST(child_start, pipes_work_whichever_standard_descriptors_are_closed) {
  for (unsigned closed = 0; closed < 8; ++closed) EXPECT_TRUE(talks_with_closed(closed)) << closed;
}

// The parent's ends lie on 0, 1 or 2 then, where the child leaves 2 open.
TEST(child_start, child_never_gets_the_parents_ends) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    EXPECT_TRUE(holds_in_a_fork([closed] {
      const test::temp_dir folder;
      for (int number = 0; number < 3; ++number)
        if (closed & (1u << number)) ::close(number);
      process p(child, {"descriptors", folder / "list"});
      while (p.read(nullptr, nullptr, 20)) {
      }
      return test::read_file(folder / "list") == (closed & 4u ? "0 1 " : "0 1 2 ");
    })) << closed;
  }
}

/// Starts a child whose three pipes lie on the given numbers; `error` may be -1.
bool talks_with_pipes_on(int input, int output, int error) {
  return holds_in_a_fork([=] {
    muro::pipe_ends in;
    muro::pipe_ends out;
    muro::pipe_ends err;
    if (!muro::open_pipe(in) || !muro::open_pipe(out) || !muro::open_pipe(err)) return false;
    ::dup2(in.read.get(), input);
    ::dup2(out.write.get(), output);
    if (error != -1) ::dup2(err.write.get(), error);
    for (const int number : {input, output, error}) ::fcntl(number, F_SETFD, FD_CLOEXEC);
    const std::string script = "read word; echo out-$word; echo err-$word >&2";
    const std::string program = "sh";
    const std::vector<std::string> args = {"-c", script};
    child_plan plan(program, args);
    plan.place(input, output, error);
    const pid_t pid = plan.start();
    static_cast<void>(!::write(in.write.get(), "word\n", 5));
    int status = -1;
    ::waitpid(pid, &status, 0);
    char bytes[32];
    const ssize_t got = ::read(out.read.get(), bytes, sizeof bytes);
    if (status != 0 || got < 0 || std::string(bytes, static_cast<std::size_t>(got)) != "out-word\n")
      return false;
    if (error == -1) return true;
    const ssize_t heard = ::read(err.read.get(), bytes, sizeof bytes);
    return heard > 0 && std::string(bytes, static_cast<std::size_t>(heard)) == "err-word\n";
  });
}

TEST(child_start, pipes_that_lie_on_each_others_targets_are_put_right) {
  std::vector<int> numbers = {0, 1, 2};
  do {
    EXPECT_TRUE(talks_with_pipes_on(numbers[0], numbers[1], numbers[2]))
        << numbers[0] << numbers[1] << numbers[2];
  } while (std::next_permutation(numbers.begin(), numbers.end()));
  EXPECT_TRUE(talks_with_pipes_on(1, 0, -1));
  EXPECT_TRUE(talks_with_pipes_on(60, 0, 61));
  EXPECT_TRUE(talks_with_pipes_on(1, 60, 0));
  EXPECT_TRUE(talks_with_pipes_on(60, 61, 62));
}

/// What a child says of its signals.
std::string signals_of_a_child() {
  std::string text;
  process p(child, {"signals"});
  while (p.read(process::string_reader, &text, 20)) {
  }
  return text;
}

TEST(child_start, child_has_no_mask_and_the_usual_answer_to_pipe_and_child_signals) {
  EXPECT_TRUE(holds_in_a_fork([] {
    for (int number = 1; number < 32; ++number) ::signal(number, SIG_DFL);
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGCHLD, SIG_IGN);
    ::signal(SIGUSR1, [](int) {});
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
    return signals_of_a_child() == "end";
  }));
}

TEST(child_start, signal_ignored_for_whoever_started_us_stays_ignored) {
  EXPECT_TRUE(holds_in_a_fork([] {
    for (int number = 1; number < 32; ++number) ::signal(number, SIG_DFL);
    ::signal(SIGHUP, SIG_IGN);
    return signals_of_a_child() == "ignored 1\nend";
  }));
}

TEST(child_start, no_handler_of_the_parents_runs_in_the_child) {
  // Shared with the child, which has no descriptor to tell through.
  static volatile int* handled = nullptr;
  void* const shared =
      ::mmap(nullptr, sizeof *handled, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  handled = new (shared) int(0);
  EXPECT_TRUE(holds_in_a_fork([] {
    ::signal(SIGTERM, [](int) { *handled = 1; });
    // The signal arrives while the child is being set up: its own fork sends it.
    static int forks = 0;
    process_priv::calls.fork = [] {
      if (++forks == 2) ::kill(::getpid(), SIGTERM);
      return ::fork();
    };
    return process::system(child, {"exit", "0"}, -1) == 0;
  }));
  EXPECT_EQ(*handled, 0);
  ::munmap(shared, sizeof *handled);
}

}  // namespace
