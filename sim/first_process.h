#pragma once

/// Process 1 of a root that runs a command: starts it, reaps what is orphaned, ends with it.

#include <signal.h>

#include <string>
#include <vector>

#include "sim/run_options.h"

namespace macroot {

/// Replaces the process by the options' command. On failure says why on standard error and ends
/// with status 127. Signals and descriptors are handed on as they are.
[[noreturn]] void run_command(const run_options& options, const std::string& mode);

/// Runs the options' command in a child and ends with the child's exit status, or 128 + N when
/// signal N ended it; every process left in the root dies with this one. Signals sent to this
/// process by another are passed on; those of the terminal reach the child by themselves.
[[noreturn]] void run_as_init(const run_options& options, const std::string& mode);

/// The signals that are passed on.
inline constexpr int kPassedSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM};

}  // namespace macroot
