/// netbuf_model: many random operations on sharing buffers, each held against strings.
///
///     netbuf_model [--count N] [--seed S] [--threads T]
///
/// One family with T of 0, the default; else T threads with a family each that hand buffers to each
/// other, N operations in all. Status 0 when nothing differed.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "muro/sys/thread.h"
#include "netbuf/netbuf_imp.h"
#include "tests/netbuf/model.h"

namespace {

using options = std::map<std::string, std::uint64_t>;

bool read_options(int argc, char** argv, options& given) {
  for (int i = 1; i < argc; i += 2) {
    char* rest = nullptr;
    if (i + 1 == argc || given.count(argv[i]) == 0) return false;
    given[argv[i]] = std::strtoull(argv[i + 1], &rest, 10);
    if (*rest != '\0' || rest == argv[i + 1]) return false;
  }
  return true;
}

/// Runs a family to the end of its operations.
class worker : public muro::thread {
 public:
  worker(std::uint32_t seed, std::uint64_t count, model::exchange* meeting)
      : muro::thread(false, "", 0), family_(seed, meeting), count_(count) {}
  const std::string& failure() const { return failure_; }

  void run() override {
    try {
      family_.run(count_);
    } catch (const std::exception& found) {
      failure_ = found.what();
    }
  }

 private:
  model::family family_;
  std::uint64_t count_;
  std::string failure_;
};

// What went wrong first; empty when nothing did.
std::string run_threads(std::uint32_t seed, std::uint64_t count, std::uint32_t threads) {
  model::exchange meeting;
  std::vector<std::unique_ptr<worker>> workers;
  for (std::uint32_t i = 0; i < threads; ++i) {
    workers.push_back(std::make_unique<worker>(seed + i, count / threads, &meeting));
  }
  for (auto& each : workers) each->detach();
  std::string failure;
  for (auto& each : workers) {
    each->synchronize();
    if (failure.empty()) failure = each->failure();
  }
  return failure;
}

std::string run_alone(std::uint32_t seed, std::uint64_t count) {
  worker alone(seed, count, nullptr);
  alone.run();
  return alone.failure();
}

}  // namespace

int main(int argc, char** argv) {
  options given{{"--count", 100000}, {"--seed", 1}, {"--threads", 0}};
  if (!read_options(argc, argv, given)) {
    std::fprintf(stderr, "usage: netbuf_model [--count N] [--seed S] [--threads T]\n");
    return 2;
  }
  muro::init_thread();
  netbuf_imp::install_builtin();
  const auto seed = static_cast<std::uint32_t>(given["--seed"]);
  const auto threads = static_cast<std::uint32_t>(given["--threads"]);
  const std::uint64_t count = given["--count"];
  const std::string failure =
      threads == 0 ? run_alone(seed, count) : run_threads(seed, count, threads);
  std::printf("%llu operations, seed %u, %u threads: %s\n", static_cast<unsigned long long>(count),
              seed, threads, failure.empty() ? "no difference" : failure.c_str());
  return failure.empty() ? 0 : 1;
}
