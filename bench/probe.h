#pragma once

/// What the probes share: programs that measure without Google Benchmark and are run by a driver.

#include <chrono>

namespace bench {

/// How long `work()` takes by the wall clock, in seconds.
template <class Work>
double seconds(Work work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace bench
