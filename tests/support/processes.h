#pragma once

/// What the tests of child processes share.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "muro/core/exception.h"
#include "muro/sys/child_start.h"
#include "muro/sys/time.h"
#include "tests/support/forked.h"

namespace test {

/// The program of tests/support/child.cpp.
inline const std::string child = KORVEL_TEST_CHILD;

/// The description of the exception that `action` throws.
inline std::string failure_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "no exception";
}

/// Whether this process has no child, running or not reaped.
inline bool has_no_children() {
  return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

/// Waits, at most 20 s, until `condition` holds.
inline bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 10000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

/// Waits until the child has ended, and leaves it to be reaped.
inline void await_end(pid_t pid) {
  siginfo_t ended{};
  ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);
}

/// Puts the system calls of child processes back when a test has replaced them.
class system_calls_restored {
 public:
  ~system_calls_restored() { process_priv::calls = before_; }

 private:
  process_priv::system_calls before_ = process_priv::calls;
};

/// The runtime's pauses made short.
class short_pauses {
 public:
  short_pauses() {
    muro::x_pause_us = [](unsigned long long) { ::usleep(1000); };
  }
  ~short_pauses() { muro::x_pause_us = nullptr; }
  short_pauses(const short_pauses&) = delete;
  short_pauses& operator=(const short_pauses&) = delete;
};

}  // namespace test
