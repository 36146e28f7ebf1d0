#pragma once

/// Runs one process under ptrace, makes one of its system calls fail, and tells what it did.
///
/// Calls are counted from the process's mark on (`kMark`), so what the loader does before `main` is
/// neither told nor made to fail. A call is named by who makes it, its name and how many of that
/// name that one has made before: "m openat 3" is the main thread's third. Who: "m" is the main
/// thread, "t1", "t2", ... are the threads in the order in which they were made; a child process
/// that has not run another program yet is its maker and ".c1", ".c2", ... The program that a child
/// runs is left alone.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace faults {

/// A system call that no kernel has; the process makes it when its `main` begins.
inline constexpr long kMark = 0x2fa17;

struct fault {
  std::string who;  ///< empty: no fault; "*": whoever makes it, all counted together
  std::string call;
  int number = 0;  ///< from 1
  /// "kill", "short" (one byte is transferred), or an error's name.
  std::string kind;
  /// How many calls of that name fail, whoever makes them, from that one on.
  int repeat = 1;
};

struct job {
  std::vector<std::string> command;
  std::vector<std::string> environment;
  fault what;
  bool record = false;   ///< tell every call
  int limit_ms = 10000;  ///< for the whole run
  /// What to do each time the process has come to rest: a command to run to its end, or the single
  /// word "term", which sends SIGTERM.
  std::vector<std::vector<std::string>> steps;
};

/// Lines of what happened, each a word and its fields:
///   call WHO NAME NUMBER RESULT DETAIL   (with `record`)
///   hit WHO NAME NUMBER DETAIL           the fault was injected here, for the first time
///   hits COUNT
///   connect EUID DETAIL                  the effective user id at a connect
///   as-user EUID NAME DETAIL             a call that changes files while the effective id is not 0
///   stays EUID                           the process ended as that user
///   step STATUS                          a step's command has ended
///   hang WHO NAME ...                    the limit was reached; who sat in what
///   stray PID                            a process that was left behind
///   end exit STATUS | signal NUMBER
using report = std::function<void(const std::string& line)>;

/// `output` is the descriptor that the process gets as standard output and error, `step_output`
/// that of the steps. The calling process must be the only one that makes children, and a reaper of
/// orphans (PR_SET_CHILD_SUBREAPER), and block SIGCHLD.
void run_traced(const job& what, int output, int step_output, const report& tell);

}  // namespace faults
