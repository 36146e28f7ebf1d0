/// A child from its start to the end of its output and its exit code, at three limits for
/// descriptors, beside posix_spawn, glib and popen; and the caller's time for a program that is let
/// go, beside a bare double fork. What a fork costs grows with the memory that the process has
/// written to: the report's context tells it, about that of the helper at work.
///
/// The limit of the first rows is one bare fork and the calls that the work takes; of the last, a
/// fork whose child ends at once: half a double fork.

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench/support.h"
#include "muro/core/init.h"
#include "muro/sys/process.h"
#include "muro/sys/unique_fd.h"
#ifdef KORVEL_BENCH_GLIB
#include <glib.h>
#endif

extern char** environ;

namespace {

// What the helper itself collects: a user's number.
constexpr char kProgram[] = "/usr/bin/id";
constexpr char kOption[] = "-u";
constexpr char kUser[] = "root";
constexpr char kPrinted[] = "0\n";
constexpr long kTimeout_s = 30;

constexpr char kDetached[] = "/bin/true";

/// The arguments as the C functions take them; none of them changes what they point to.
char** arguments() {
  static char* all[] = {const_cast<char*>(kProgram), const_cast<char*>(kOption),
                        const_cast<char*>(kUser), nullptr};
  return all;
}

struct pipe_pair {
  pipe_pair() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) std::perror("pipe2"), std::exit(1);
    read.reset(ends[0]);
    write.reset(ends[1]);
  }
  muro::unique_fd read;
  muro::unique_fd write;
};

std::string read_to_the_end(int from) {
  std::string text;
  char chunk[8192];
  for (ssize_t got; (got = ::read(from, chunk, sizeof chunk)) > 0;)
    text.append(chunk, static_cast<std::size_t>(got));
  return text;
}

/// What a contender collects: empty when the program did not end well.
using collect = std::string (*)();

std::string if_ended_well(std::string text, int status) {
  return status == 0 ? std::move(text) : std::string();
}

std::string ours() {
  long long exit_code = -1;
  const std::string text =
      muro::process::system_immediate(kProgram, {kOption, kUser}, &exit_code, kTimeout_s);
  return if_ended_well(text, static_cast<int>(exit_code));
}

/// The two pipes of ours, and its descriptors closed.
std::string by_posix_spawn() {
  pipe_pair input;
  pipe_pair output;
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, input.read.get(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDOUT_FILENO);
  ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  pid_t pid = -1;
  const int failure = ::posix_spawn(&pid, kProgram, &actions, nullptr, arguments(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) return {};
  output.write.reset();
  std::string text = read_to_the_end(output.read.get());
  int status = -1;
  ::waitpid(pid, &status, 0);
  return if_ended_well(std::move(text), status);
}

std::string by_bare_fork() {
  pipe_pair input;
  pipe_pair output;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(input.read.get(), STDIN_FILENO);
    ::dup2(output.write.get(), STDOUT_FILENO);
    ::execv(kProgram, arguments());
    ::_exit(1);
  }
  output.write.reset();
  std::string text = read_to_the_end(output.read.get());
  int status = -1;
  ::waitpid(pid, &status, 0);
  return if_ended_well(std::move(text), status);
}

std::string by_popen() {
  FILE* const stream = ::popen("exec /usr/bin/id -u root", "re");
  if (stream == nullptr) return {};
  std::string text = read_to_the_end(::fileno(stream));
  return if_ended_well(std::move(text), ::pclose(stream));
}

#ifdef KORVEL_BENCH_GLIB
std::string by_glib() {
  char* text = nullptr;
  int status = -1;
  if (!g_spawn_sync(nullptr, arguments(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &text,
                    nullptr, &status, nullptr))
    return {};
  std::string printed = text;
  g_free(text);
  return if_ended_well(std::move(printed), status);
}
#endif

rlimit descriptor_limit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return limit;
}

void set_descriptor_limit(rlim_t limit) {
  const rlimit wanted{limit, descriptor_limit().rlim_max};
  if (::setrlimit(RLIMIT_NOFILE, &wanted) != 0) std::perror("setrlimit"), std::exit(1);
}

/// As many as the kernel knows, where this process may ask for that; else what it may have.
rlim_t most_descriptors() {
  const rlim_t most = std::stoul(bench::content_of("/proc/sys/fs/nr_open"));
  const rlimit wanted{descriptor_limit().rlim_cur, most};
  ::setrlimit(RLIMIT_NOFILE, &wanted);
  return descriptor_limit().rlim_max;
}

void add_collecting(const std::string& row, const char* contender, rlim_t limit, collect how) {
  bench::add(row, contender, [limit, how](benchmark::State& state) {
    set_descriptor_limit(limit);
    for (auto _ : state)
      if (how() != kPrinted) return state.SkipWithError("wrong: another output");
  })->UseRealTime();
}

void add_collecting_rows(const std::string& row, rlim_t limit) {
  add_collecting(row, "ours", limit, ours);
  add_collecting(row, "limit", limit, by_bare_fork);
  add_collecting(row, "posix_spawn", limit, by_posix_spawn);
  add_collecting(row, "popen", limit, by_popen);
#ifdef KORVEL_BENCH_GLIB
  add_collecting(row, "glib", limit, by_glib);
#else
  bench::add_missing(row, "glib");
#endif
}

void start_detached() {
  muro::process::system(kDetached, {}, -1);
}

void double_fork() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setsid();
    if (::fork() != 0) ::_exit(0);
    ::execl(kDetached, kDetached, nullptr);
    ::_exit(1);
  }
  int status;
  ::waitpid(pid, &status, 0);
}

void fork_once() {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  int status;
  ::waitpid(pid, &status, 0);
}

/// `programs` are left running by one start; this process inherits them, and lets them end before
/// the next is timed.
void add_detached(const char* contender, void (*start)(), int programs) {
  bench::add("child/detached", contender, [start, programs](benchmark::State& state) {
    for (auto _ : state) {
      const bench::stopwatch watch;
      start();
      state.SetIterationTime(watch.seconds());
      int left = 0;
      while (::wait(nullptr) > 0) ++left;
      if (left != programs) return state.SkipWithError("wrong: another number of programs");
    }
  })->UseManualTime();
}

std::string written_memory() {
  const std::string status = bench::content_of("/proc/self/status");
  const std::size_t start = status.find_first_not_of(" \t", status.find("RssAnon:") + 8);
  return status.substr(start, status.find('\n', start) - start);
}

}  // namespace

int main(int argc, char** argv) {
  [[maybe_unused]] static const muro::init* const runtime = new muro::init;
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const rlim_t most = most_descriptors();
  benchmark::AddCustomContext("written memory", written_memory());
  benchmark::AddCustomContext("most descriptors", std::to_string(most));
  add_collecting_rows("child/limit_1024", 1024);
  add_collecting_rows("child/limit_20000", 20000);
  add_collecting_rows("child/limit_most", most);
  add_detached("ours", start_detached, 1);
  add_detached("double fork", double_fork, 1);
  add_detached("limit", fork_once, 0);
  return bench::run(argc, argv);
}
