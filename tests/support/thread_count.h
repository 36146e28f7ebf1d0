#pragma once

/// How many threads this process has, as the kernel tells it.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>

namespace test {

/// Its number of threads now. A sanitizer starts one of its own with a program's first, so that one
/// is started, and has ended, before.
inline std::ptrdiff_t thread_count() {
  static const bool has_started_one = (std::thread([] {}).join(), true);
  static_cast<void>(has_started_one);
  using folder = std::filesystem::directory_iterator;
  return std::distance(folder("/proc/self/task"), folder());
}

/// Whether no more than `count` are left, now or soon: the kernel lets go of a thread's number a
/// moment after it is joined.
inline bool threads_come_down_to(std::ptrdiff_t count) {
  for (int i = 0; i < 1000 && thread_count() > count; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return thread_count() <= count;
}

}  // namespace test
