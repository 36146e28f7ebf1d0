/// The error log beside other loggers, from its caller's side and from the file's.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "bench/log_limit.h"
#include "bench/log_peers.h"
#include "bench/support.h"
#include "muro/core/init.h"

namespace {

constexpr std::size_t kLines = 30000;
constexpr std::size_t kBurst = 1000;

const std::vector<std::string>& lines() {
  static const std::vector<std::string> made = [] {
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < kLines; ++i) {
      texts.push_back("Failed to move file to /Library/Application Support/Korvel/Session " +
                      std::to_string(10000 + i) + ": Operation not permitted");
    }
    return texts;
  }();
  return made;
}

/// The caller has one processor for itself, and the threads that a logger starts have the others, for
/// all contenders alike. Else the kernel puts a writer that is woken in the caller's place now and
/// then, and what is told is how long it stays there. Threads inherit where they may run.
class processors {
 public:
  /// Keeps the caller on the processor that it is on.
  processors() {
    CPU_ZERO(&callers_);
    CPU_SET(::sched_getcpu(), &callers_);
    ::sched_getaffinity(0, sizeof others_, &others_);
    CPU_XOR(&others_, &others_, &callers_);
    if (CPU_COUNT(&others_) == 0) others_ = callers_;
    take(callers_);
  }

  /// Makes a `Made`, whose threads run on the other processors.
  template <class Made, class... Arguments>
  std::unique_ptr<Made> make_on_others(const Arguments&... arguments) const {
    take(others_);
    auto made = std::make_unique<Made>(arguments...);
    take(callers_);
    return made;
  }

 private:
  static void take(const cpu_set_t& set) {
    if (::sched_setaffinity(0, sizeof set, &set) != 0) std::perror("sched_setaffinity");
  }

  cpu_set_t callers_;
  cpu_set_t others_;
};

const processors& places() {
  static const processors made;
  return made;
}

template <class Logger>
std::unique_ptr<Logger> make_logger(const bench::destination& to) {
  return places().make_on_others<Logger>(to);
}

std::string path_of(const char* row, const char* contender) {
  static const bench::folder files;
  return files / (std::string(row) + "-" + contender + ".log");
}

/// The first `cycle` lines were logged in turn, the next would be `next`: the file has to hold the
/// last of them in order, whatever stands in front of their texts. A peer's head lines are left
/// out.
bool has_lines(const std::string& path, std::size_t at_least, std::size_t next, std::size_t cycle) {
  std::istringstream file(bench::content_of(path));
  std::vector<std::string> found;
  for (std::string line; std::getline(file, line);) {
    const std::size_t text = line.find("Failed to move");
    if (text != std::string::npos) found.push_back(line.substr(text));
  }
  for (auto text = found.rbegin(); text != found.rend(); ++text) {
    next = (next == 0 ? cycle : next) - 1;
    if (*text != lines()[next]) return false;
  }
  return found.size() >= at_least;
}

void check(benchmark::State& state, const std::string& path, std::size_t at_least, std::size_t next,
           std::size_t cycle) {
  if (!has_lines(path, at_least, next, cycle))
    state.SkipWithError("wrong: other lines in the file");
}

/// The median of so many: now and then the machine takes a processor away for longer than all the
/// other calls take together.
constexpr int kTries = 100;

template <class Try>
void time_tries(benchmark::State& state, Try try_once) {
  for (auto _ : state) {
    std::array<double, kTries> seconds;
    std::generate(seconds.begin(), seconds.end(), try_once);
    std::nth_element(seconds.begin(), seconds.begin() + kTries / 2, seconds.end());
    state.SetIterationTime(seconds[kTries / 2]);
  }
}

/// The caller's time for one call, while the writer comes up and works beside it.
template <class Logger>
void call_in_burst(benchmark::State& state, Logger& logger) {
  time_tries(state, [&] {
    bench::wait_until_others_sleep();
    const bench::stopwatch watch;
    for (std::size_t i = 0; i < kBurst; ++i) logger.log(lines()[i]);
    const double seconds = watch.seconds() / kBurst;
    logger.flush();
    return seconds;
  });
}

/// Longer than an idle processor looks out for work before it sleeps too (up to 200 us in a guest of
/// Linux): how long ago its last work ended would otherwise be most of what a wake-up costs.
constexpr useconds_t kLongAsleep_us = 500;

/// The caller's time for one call that finds the writer asleep, and has for a while.
template <class Logger>
void call_asleep(benchmark::State& state, Logger& logger) {
  std::size_t next = 0;
  time_tries(state, [&] {
    const std::string& line = lines()[next++ % kBurst];
    bench::wait_until_others_sleep();
    ::usleep(kLongAsleep_us);
    const bench::stopwatch watch;
    logger.log(line);
    const double seconds = watch.seconds();
    logger.flush();
    return seconds;
  });
}

template <class Logger>
void add_calls(const char* name) {
  bench::add("log_call/burst", name,
             [name](benchmark::State& state) {
               const std::string path = path_of("burst", name);
               const auto logger = make_logger<Logger>({path});
               call_in_burst(state, *logger);
               check(state, path, kBurst, 0, kBurst);
             })
      ->UseManualTime()
      ->Iterations(1);
  bench::add("log_call/asleep", name,
             [name](benchmark::State& state) {
               const auto logger = make_logger<Logger>({path_of("asleep", name)});
               call_asleep(state, *logger);
             })
      ->UseManualTime()
      ->Iterations(1);
}

void add_limit() {
  bench::add("log_call/burst", "limit",
             [](benchmark::State& state) {
               const auto ring = places().make_on_others<bench::log_ring>("bench");
               call_in_burst(state, *ring);
             })
      ->UseManualTime()
      ->Iterations(1);
  bench::add("log_call/asleep", "limit",
             [](benchmark::State& state) {
               const auto ring = places().make_on_others<bench::log_ring>("bench");
               call_asleep(state, *ring);
             })
      ->UseManualTime()
      ->Iterations(1);
}

template <class Logger>
void log_and_flush(benchmark::State& state, const std::string& path) {
  if (::truncate(path.c_str(), 0) != 0 && errno != ENOENT) std::perror("truncate");
  const auto logger = make_logger<Logger>({path});
  std::size_t next = 0;
  for (auto _ : state) {
    logger->log(lines()[next++ % kLines]);
    logger->flush();
  }
  check(state, path, 1, next % kLines, kLines);
}

/// Standard error leads nowhere while it exists: the same for all, and the cheapest there is.
class silent_stderr {
 public:
  silent_stderr() : kept_(::dup(2)) {
    const int nowhere = ::open("/dev/null", O_WRONLY);
    ::dup2(nowhere, 2);
    ::close(nowhere);
  }
  ~silent_stderr() {
    ::dup2(kept_, 2);
    ::close(kept_);
  }
  silent_stderr(const silent_stderr&) = delete;
  silent_stderr& operator=(const silent_stderr&) = delete;

 private:
  int kept_;
};

template <class Logger>
void write_lines(benchmark::State& state, const bench::destination& to) {
  const silent_stderr silent;
  const auto logger = make_logger<Logger>(to);
  for (auto _ : state) {
    if (!to.rotation) ::truncate(to.path.c_str(), 0) == 0 ? void() : std::perror("truncate");
    const bench::stopwatch watch;
    for (const std::string& line : lines()) logger->log(line);
    logger->flush();
    state.SetIterationTime(watch.seconds());
  }
  if (to.rotation && ::access(to.path.c_str(), F_OK) != 0) return;  // has just become the older one
  check(state, to.path, to.rotation ? 0 : kLines, 0, kLines);
}

template <class Logger>
void add_files(const char* name) {
  bench::add(
      "log_line/flushed", name,
      [name](benchmark::State& state) { log_and_flush<Logger>(state, path_of("line", name)); })
      ->UseRealTime()
      ->Iterations(300);
  const auto add_row = [name](const char* what, bool echo, bool rotation) {
    const std::string row = std::string("log_file/") + what;
    bench::add(row, name,
               [=](benchmark::State& state) {
                 write_lines<Logger>(state, {path_of(what, name), echo, rotation});
               })
        ->UseManualTime()
        ->Iterations(2);
  };
  add_row("lines", false, false);
  add_row("echo", true, false);
  add_row("rotation", false, true);
}

[[maybe_unused]] void add_missing(const char* name) {
  for (const char* row : {"log_call/burst", "log_call/asleep", "log_line/flushed", "log_file/lines",
                          "log_file/echo", "log_file/rotation"}) {
    bench::add_missing(row, name);
  }
}

/// The log of this process has one writer, which the first line starts.
void start_our_writer() {
  struct first_line : bench::our_log {
    explicit first_line(const bench::destination& to) : our_log(to) {
      log("the writer is started");
      flush();
    }
  };
  places().make_on_others<first_line>(bench::destination{path_of("start", "ours")});
}

}  // namespace

int main(int argc, char** argv) {
  const muro::init runtime;
  lines();  // made before anything is timed
  start_our_writer();
  add_calls<bench::our_log>("ours");
  add_files<bench::our_log>("ours");
  add_limit();
#ifdef KORVEL_BENCH_SPDLOG
  using bench::form;
  add_calls<bench::spdlog_async<form::ours>>("spdlog async");
  add_calls<bench::spdlog_async<form::own>>("spdlog async, own form");
  add_files<bench::spdlog_async<form::ours>>("spdlog async");
  add_files<bench::spdlog_async<form::own>>("spdlog async, own form");
  add_files<bench::spdlog_sync<form::ours>>("spdlog sync");
  add_files<bench::spdlog_sync<form::own>>("spdlog sync, own form");
#else
  add_missing("spdlog async");
#endif
#ifdef KORVEL_BENCH_GLOG
  add_calls<bench::glog>("glog");
#else
  add_missing("glog");
#endif
  return bench::run(argc, argv);
}
