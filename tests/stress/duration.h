#pragma once

/// How long a stress lasts.

#include <cstdlib>

#include "tests/support/stopwatch.h"

namespace test {

/// Runs out after a second, or after KORVEL_STRESS_SECONDS where that is set.
class stress_time {
 public:
  bool is_left() const { return watch_.ms() < limit_ms_; }

 private:
  static long long seconds() {
    const char* const asked = std::getenv("KORVEL_STRESS_SECONDS");
    return asked != nullptr ? std::atoll(asked) : 1;
  }

  stopwatch watch_;
  long long limit_ms_ = 1000 * seconds();
};

}  // namespace test
