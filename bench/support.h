#pragma once

/// What all benchmark programs share. A measurement is named "WORKLOAD/CASE/CONTENDER"; the
/// contender is "ours", a peer, or "limit", what the machine itself costs. See bench/README.md.

#include <benchmark/benchmark.h>
#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace bench {

template <class Run>
benchmark::internal::Benchmark* add(const std::string& row, const char* contender, Run run) {
  return benchmark::RegisterBenchmark((row + "/" + contender).c_str(), run);
}

/// The row of a peer whose development package is not there. report.py knows the first word.
inline void add_missing(const std::string& row, const char* contender) {
  add(row, contender, [](benchmark::State& state) {
    state.SkipWithError("missing: the development package is not installed");
  });
}

/// A contender that computes something: `make()` has to give `wanted` before it is timed.
template <class Make, class Result>
void add_computed(const std::string& row, const char* contender, Make make, const Result& wanted) {
  add(row, contender, [make, wanted](benchmark::State& state) {
    if (!(make() == wanted)) return state.SkipWithError("wrong: another outcome than the others'");
    for (auto _ : state) benchmark::DoNotOptimize(make());
  });
}

/// Seconds since it was made; for `SetIterationTime`.
class stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// A folder for the program's files, in $TMPDIR or /tmp; removed at its end.
class folder {
 public:
  folder() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr ? base : "/tmp") + "/korvel-bench-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) std::perror("mkdtemp"), std::exit(1);
  }
  ~folder() { std::system(("rm -rf " + path_).c_str()) == 0 ? void() : std::perror("rm"); }
  folder(const folder&) = delete;
  folder& operator=(const folder&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string content_of(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

/// Returns once every other thread of this process sleeps, as the kernel tells it (proc(5)).
inline void wait_until_others_sleep() {
  const auto one_runs = [] {
    int running = -1;  // the caller
    DIR* const tasks = ::opendir("/proc/self/task");
    while (const dirent* const task = ::readdir(tasks)) {
      if (task->d_name[0] == '.') continue;
      const std::string stat = content_of(std::string("/proc/self/task/") + task->d_name + "/stat");
      const std::size_t name_end = stat.rfind(") ");
      if (name_end != std::string::npos && stat[name_end + 2] != 'S') ++running;
    }
    ::closedir(tasks);
    return running > 0;
  };
  while (one_runs()) ::sched_yield();
}

/// The end of every `main`, after the rows are added.
inline int run(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
