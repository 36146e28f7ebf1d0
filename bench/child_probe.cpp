/// A child from its start to the end of its output and its exit code, at three limits for
/// descriptors, beside posix_spawn, glib and popen; and the caller's time for a program that is let
/// go, beside a bare double fork. Contenders take turns; prints "CASE/CONTENDER SECONDS" lines, each
/// the median of a turn. The driver is child_bench.py.
///
///     child_probe ROUNDS CASE...
///
/// What a fork costs grows with what the process has mapped and written to, so this one is no
/// Google Benchmark program: it is linked as the helper is, and has no more mapped than that.
///
/// The limit of the first rows is one bare fork and the calls that the work takes; of the last, a
/// fork whose child ends at once: half a double fork.

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench/probe.h"
#include "muro/core/init.h"
#include "muro/sys/process.h"
#include "muro/sys/unique_fd.h"
#ifdef KORVEL_BENCH_GLIB
#include <glib.h>
#endif

extern char** environ;

namespace {

using bench::seconds;

// What the helper itself collects: a user's number.
constexpr char kProgram[] = "/usr/bin/id";
constexpr char kOption[] = "-u";
constexpr char kUser[] = "root";
constexpr char kPrinted[] = "0\n";
constexpr long kTimeout_s = 30;

constexpr char kDetached[] = "/bin/true";

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "child_probe: %s\n", what);
  std::exit(1);
}

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
  rlim_t most = 0;
  std::ifstream("/proc/sys/fs/nr_open") >> most;
  const rlimit wanted{descriptor_limit().rlim_cur, most};
  ::setrlimit(RLIMIT_NOFILE, &wanted);
  return descriptor_limit().rlim_max;
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

/// One start that is let go, timed. `programs` are left running by it; this process inherits them,
/// and lets them end before the next is timed.
double seconds_to_let_go(void (*start)(), int programs) {
  const double took = seconds(start);
  int left = 0;
  while (::wait(nullptr) > 0) ++left;
  if (left != programs) fail("wrong: another number of programs");
  return took;
}

double seconds_to_collect(collect how) {
  std::string printed;
  const double took = seconds([&] { printed = how(); });
  if (printed != kPrinted) fail("wrong: another output");
  return took;
}

struct contender {
  const char* name;
  std::function<double()> once;
};

std::vector<contender> collecting() {
  std::vector<contender> all = {{"ours", [] { return seconds_to_collect(ours); }},
                                {"limit", [] { return seconds_to_collect(by_bare_fork); }},
                                {"posix_spawn", [] { return seconds_to_collect(by_posix_spawn); }},
                                {"popen", [] { return seconds_to_collect(by_popen); }}};
#ifdef KORVEL_BENCH_GLIB
  all.push_back({"glib", [] { return seconds_to_collect(by_glib); }});
#endif
  return all;
}

std::vector<contender> detaching() {
  return {{"ours", [] { return seconds_to_let_go(start_detached, 1); }},
          {"double fork", [] { return seconds_to_let_go(double_fork, 1); }},
          {"limit", [] { return seconds_to_let_go(fork_once, 0); }}};
}

/// A turn of one contender; what the one before has left in the caches is not its burden.
double median_of_a_turn(const contender& who) {
  constexpr int kWarming = 3;
  std::array<double, 61> took{};
  for (int i = 0; i < kWarming; ++i) who.once();
  std::generate(took.begin(), took.end(), who.once);
  std::nth_element(took.begin(), took.begin() + took.size() / 2, took.end());
  return took[took.size() / 2];
}

void measure(const std::string& row, const std::vector<contender>& all, std::size_t round) {
  for (std::size_t i = 0; i < all.size(); ++i) {
    const contender& who = all[(i + round) % all.size()];
    std::printf("%s/%s %.9f\n", row.c_str(), who.name, median_of_a_turn(who));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) fail("wrong use");
  [[maybe_unused]] static const muro::init* const runtime = new muro::init;
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const std::vector<std::pair<std::string, rlim_t>> limits = {
      {"child/limit_1024", 1024},
      {"child/limit_20000", 20000},
      {"child/limit_most", most_descriptors()}};
  const auto is_wanted = [&](const std::string& row) {
    return std::find(argv + 2, argv + argc, row) != argv + argc;
  };
  for (std::size_t round = 0; round < std::stoul(argv[1]); ++round) {
    for (const auto& [row, limit] : limits) {
      set_descriptor_limit(limit);
      if (is_wanted(row)) measure(row, collecting(), round);
    }
    if (is_wanted("child/detached")) measure("child/detached", detaching(), round);
  }
}
