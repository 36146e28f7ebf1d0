#include "muro/sys/child_start.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>

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

TEST(child_start, child_has_no_mask_and_the_usual_answer_to_every_signal) {
  EXPECT_TRUE(holds_in_a_fork([] {
    for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_IGN);
    ::signal(SIGCHLD, [](int) {});
    ::signal(SIGUSR1, [](int) {});
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
    return signals_of_a_child() == "end";
  }));
}

TEST(child_start, detached_program_has_the_usual_answer_to_every_signal_too) {
  EXPECT_TRUE(holds_in_a_fork([] {
    const test::temp_dir folder;
    const std::string told = folder / "told";
    for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_IGN);
    ::signal(SIGCHLD, SIG_DFL);
    process::system(
        "sh", {"-c", child + " signals > " + told + ".part; mv " + told + ".part " + told}, -1);
    return test::eventually([&] { return ::access(told.c_str(), F_OK) == 0; }) &&
           test::read_file(told) == "end";
  }));
}

/// The environment of a child, as a program of the system's prints it.
std::string environment_of_a_child() {
  return process::system_immediate("/usr/bin/env", {}, nullptr, 20);
}

TEST(child_start, childs_path_is_launchds_whatever_this_process_has) {
  EXPECT_TRUE(holds_in_a_fork([] {
    ::setenv("PATH", "/home/mallory/bin:/usr/bin", 1);
    ::setenv("KEPT", "as it is", 1);
    const std::string told = "\n" + environment_of_a_child();
    return told.find("\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n") != std::string::npos &&
           told.find("mallory") == std::string::npos &&
           told.find("\nKEPT=as it is\n") != std::string::npos;
  }));
}

TEST(child_start, childs_path_is_set_when_this_process_has_none_or_two) {
  EXPECT_TRUE(holds_in_a_fork([] {
    ::unsetenv("PATH");
    if (environment_of_a_child().find("PATH=/usr/bin:/bin:/usr/sbin:/sbin\n") == std::string::npos)
      return false;
    char first[] = "PATH=/first";
    char second[] = "PATH=/second";
    char* two[] = {first, second, nullptr};
    environ = two;
    return environment_of_a_child() == "PATH=/usr/bin:/bin:/usr/sbin:/sbin\n";
  }));
}

/// Whether "tool" is found, and is the one in `folder`.
bool runs_the_tool_of(const std::string& folder) {
  return process::system_immediate("tool", {}, nullptr, 20) == folder + "\n";
}

/// A program of that name that prints where it lies.
std::string make_tool(const test::temp_dir& root, const std::string& name, mode_t mode = 0755) {
  const std::string folder = root / name;
  ::mkdir(folder.c_str(), 0755);
  test::write_file(folder + "/tool", "#!/bin/sh\necho " + folder + "\n");
  ::chmod((folder + "/tool").c_str(), mode);
  return folder;
}

TEST(child_start, program_without_a_slash_is_the_first_one_in_this_process_path) {
  EXPECT_TRUE(holds_in_a_fork([] {
    const test::temp_dir root;
    const std::string one = make_tool(root, "one");
    const std::string two = make_tool(root, "two");
    ::setenv("PATH", (root / "none" + ":" + two + ":" + one).c_str(), 1);
    return runs_the_tool_of(two);
  }));
}

TEST(child_start, search_goes_on_after_what_is_no_program) {
  EXPECT_TRUE(holds_in_a_fork([] {
    const test::temp_dir root;
    const std::string locked = make_tool(root, "locked", 0644);
    const std::string good = make_tool(root, "good");
    test::write_file(root / "file", "");
    ::symlink("loop", (root / "loop").c_str());
    ::setenv("PATH",
             (root / "file:" + locked + ":" + (root / "loop") + ":" + std::string(5000, 'n') + ":" +
              good)
                 .c_str(),
             1);
    return runs_the_tool_of(good);
  }));
}

TEST(child_start, empty_folder_in_the_path_is_the_working_folder) {
  EXPECT_TRUE(holds_in_a_fork([] {
    const test::temp_dir root;
    const std::string here = make_tool(root, "here");
    ::setenv("PATH", "/nowhere:", 1);
    return ::chdir(here.c_str()) == 0 && runs_the_tool_of(here);
  }));
}

TEST(child_start, script_without_a_first_line_is_run_by_the_shell) {
  EXPECT_TRUE(holds_in_a_fork([] {
    const test::temp_dir root;
    test::write_file(root / "script", "echo \"$1\"\n");
    ::chmod((root / "script").c_str(), 0755);
    return process::system_immediate(root / "script", {"word"}, nullptr, 20) == "word\n";
  }));
}

TEST(child_start, zero_byte_in_program_argument_or_folder_runs_nothing) {
  const test::short_pauses quick;
  const std::string zero(1, '\0');
  EXPECT_EQ(process::system(child + zero + "x", {"exit", "0"}, 30), -9);
  EXPECT_EQ(process::system(child, {"exit", "0" + zero + "1"}, 30), -9);
  EXPECT_EQ(process::system(child, {"exit", "0", zero}, 30), -9);
  process::options options;
  const std::string folder = "/tmp" + zero + "/elsewhere";
  options.working_folder = &folder;
  process p;
  p.init_(child, {"exit", "0"}, options);
  test::await_end(p.pid());
  EXPECT_TRUE(p.done());
  EXPECT_EQ(p.exit_code(), -9);
}

TEST(child_start, nameless_program_is_a_program_that_is_not_there) {
  const test::short_pauses quick;
  EXPECT_EQ(process::system("", {}, 30), -9);
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
