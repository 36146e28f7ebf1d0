#pragma once

/// A check in a process of its own.

#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace test {

/// Runs `check` in a process whose descriptors, signals and folder it may spoil. An exception, a
/// death or a minute without an end count as false.
inline bool holds_in_a_fork(const std::function<bool()>& check) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(60);
    bool held = false;
    try {
      held = check();
    } catch (...) {
    }
    ::_exit(held ? 0 : 1);
  }
  int status = -1;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

}  // namespace test
