#pragma once

/// How long something took.

#include <chrono>

namespace test {

class stopwatch {
 public:
  long long ms() const {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace test
