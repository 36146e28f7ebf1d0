#pragma once

/// Names in shared folders that nobody has, had or will have. A process number alone is none: the
/// numbers come round, and a test that was killed leaves its files behind.

#include <random>
#include <string>

namespace test {

/// `start` and 16 random hexadecimal digits.
inline std::string unique_name(std::string start) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::random_device random;
  for (int i = 0; i < 16; ++i) start += kDigits[random() % 16];
  return start;
}

}  // namespace test
