#pragma once

/// The roles of the executable: which one the start options ask for, and running it.
///
///     order  role                    when                                          exit status
///     1      self_test               test                                          0; 1: a step failed
///     2      install_shared_daemon   runInstall                                    0 or 1
///     3      remove_session          restoreFile with an ID, the file is missing   0
///     4      install_session_daemon  restoreFile with an ID, not installed         0 or 1
///     5      serve_session           restoreFile with an ID, installed             0, by a signal
///     6      refuse_restore_file     restoreFile without an ID                     42
///     7      serve_shared            no restoreFile                                0, by a signal
///
/// The first row that fits counts. "With an ID" means that the restore ID of the file names a
/// session (`namesSession`): an ID that could lead out of the sessions' folder is as good as none.
/// "Missing" means known to be: a file that could not be looked at for another reason (no memory, a
/// disk's fault, a right that a server refuses) counts as there, as its removal could not be undone.

#include <string>

#include "platform/platform.h"

using platform::nil_string;

/// The start options, each named as on the command line ("exePath" is `exe_path`).
struct start_options {
  bool test = false;
  bool installed = false;  ///< started by launchd as the session's daemon
  nil_string exe_path;  ///< the client: its bundle to install from, its executable when installed
  nil_string restore_file;  ///< the session's restore file
  bool run_install = false;
};

/// Reads the start options from the system. With `test` set the rest is not read.
start_options read_options();

enum class role {
  self_test,
  install_shared_daemon,
  remove_session,
  install_session_daemon,
  serve_session,
  refuse_restore_file,
  serve_shared,
};

/// Pure: the first matching row of the dispatch table.
role choose_role(const start_options& options, const nil_string& restore_id,
                 bool restore_file_exists);

/// Blocks the main thread while the endpoint's thread serves.
using main_loop = void (*)();

/// Chooses a role and runs it to its end; gives the exit status. Needs `start_runtime` before it.
int run_role(const start_options& options);

// The roles, in the order of the table. What they log as a whole is named "main". Exceptions of the
// launchd layer pass on.

/// Removes what an earlier run left, then the steps of front/self_test.h; 0 when none ended the
/// process.
int run_self_test();

/// Installs the shared daemon, with the log in "korvel_helper_install.out".
int install_shared_daemon();

/// The session is over: removes its agent, its daemon and its folder and ends the process with 0,
/// the log written.
[[noreturn]] void remove_session(const std::string& restore_file, const nil_string& restore_id);

/// Brings everything into the session folder and installs the session's daemon.
int install_session_daemon(const start_options& options, const nil_string& restore_id);

/// Installs the restart agent if it is missing, then serves the session's endpoint.
int serve_session(const start_options& options, const nil_string& restore_id,
                  main_loop loop = platform::run_main_loop);

/// Ends the process with 42. Deliberate: at once, with neither the log written nor the pool
/// drained; lines on their way may be lost.
[[noreturn]] void refuse_restore_file();

/// Serves the endpoint "korvel_helper_ID", or "korvel_helper" when the ID is nil or empty, until
/// the loop returns; gives 0.
int serve(const nil_string& restore_id, main_loop loop = platform::run_main_loop);
