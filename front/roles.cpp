#include "front/roles.h"

#include <cerrno>
#include <cstdlib>

#include "front/command_handler.h"
#include "front/installation.h"
#include "front/self_test.h"
#include "front/session_folder.h"
#include "front/startup.h"
#include "muro/core/errlog.h"
#include "muro/sys/files.h"
#include "muro/sys/thread.h"

namespace {

constexpr const char* kLogName = "main";
// Deliberate: an odd status, which tells the installer this one case from all others.
constexpr int kInvalidRestoreFile = 42;

int status_of(bool success) {
  return success ? EXIT_SUCCESS : EXIT_FAILURE;
}

// A missing restore file ends the session for good, its bytes included. So it has to be known to be
// missing: a look at it that failed for want of memory or by a disk's or a server's fault tells
// nothing, and then nothing is removed.
bool may_exist(const std::string& path) {
  if (muro::file_exists(path)) return true;
  return errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != ENAMETOOLONG;
}

std::string endpoint_name(const std::string& restore_id) {
  return restore_id.empty() ? "korvel_helper" : muro::stringify("korvel_helper_", restore_id);
}

}  // namespace

start_options read_options() {
  start_options options;
  options.test = platform::bool_option("test");
  if (options.test) return options;
  options.installed = platform::bool_option("installed");
  options.exe_path = platform::string_option("exePath");
  options.restore_file = platform::string_option("restoreFile");
  options.run_install = platform::bool_option("runInstall");
  return options;
}

role choose_role(const start_options& options, const nil_string& restore_id,
                 bool restore_file_exists) {
  if (options.test) return role::self_test;
  if (options.run_install) return role::install_shared_daemon;
  if (!options.restore_file) return role::serve_shared;
  if (!namesSession(restore_id)) return role::refuse_restore_file;
  if (!restore_file_exists) return role::remove_session;
  return options.installed ? role::serve_session : role::install_session_daemon;
}

int run_role(const start_options& options) {
  const nil_string restore_id = restoreIDFromFile(options.restore_file);
  const bool exists = options.restore_file && may_exist(*options.restore_file);
  switch (choose_role(options, restore_id, exists)) {
    case role::self_test:
      return run_self_test();
    case role::install_shared_daemon:
      return install_shared_daemon();
    case role::remove_session:
      remove_session(*options.restore_file, restore_id);
    case role::install_session_daemon:
      return install_session_daemon(options, restore_id);
    case role::serve_session:
      return serve_session(options, restore_id);
    case role::refuse_restore_file:
      refuse_restore_file();
    case role::serve_shared:
      break;
  }
  return serve(std::nullopt);
}

int run_self_test() {
  // Deliberate: no failure here is logged or counts; the steps below have their own.
  try {
    muro::delete_recursive(kTestSessionFolder);
  } catch (...) {
    // There is nothing to remove, as a rule.
  }
  createTestFile();
  testMoveFile();
  createTestFile();
  testInstantVersion();
  return EXIT_SUCCESS;
}

int install_shared_daemon() {
  log_beside_executable("korvel_helper_install.out");
  return status_of(installServiceNoInstant());
}

void remove_session(const std::string& restore_file, const nil_string& restore_id) {
  const muro::fmt_dbg log(kLogName);
  log.fmt_verbose("restore file %1% does not exist, removing this service", restore_file);
  if (!uninstallAgent(restore_id))
    log.fmt_verbose("Failed to uninstall agent for %1%", restore_file);
  uninstallServiceRemove(restore_id);
  // Deliberate: once more, also when all went well. It marks the end of the removal.
  log.fmt_verbose("Failed to uninstall agent for %1%", restore_file);
  // The process ends inside, past every flush guard; these lines are all that tells what happened.
  muro::errlog::wait_for_flush();
  muro::silent_terminate(true);
}

int install_session_daemon(const start_options& options, const nil_string& restore_id) {
  const muro::fmt_dbg log(kLogName);
  const bool installed = installService(options.exe_path, options.restore_file, restore_id);
  if (!installed) log.fmt_verbose("Failed to install service, will not be able to resume properly");
  return status_of(installed);
}

int serve_session(const start_options& options, const nil_string& restore_id, main_loop loop) {
  const muro::fmt_dbg log(kLogName);
  // Deliberate: serves whatever becomes of the agent; the client can still register and resign.
  if (!agentInstalled(restore_id) &&
      !installAgent(restore_id, options.exe_path, options.restore_file))
    log.fmt_verbose("Install agent failed");
  return serve(restore_id, loop);
}

void refuse_restore_file() {
  const muro::fmt_dbg log(kLogName);
  log.fmt_verbose("Invalid restore file, should remove self");
  // Deliberate: at once. The log's thread may be writing; what it uses is never destroyed.
  std::exit(kInvalidRestoreFile);
}

int serve(const nil_string& restore_id, main_loop loop) {
  const std::string own_id = restore_id.value_or("");
  // Opened before the loop and closed after it: no request meets half a helper.
  const ipc_communicator handler(endpoint_name(own_id), own_id);
  loop();
  return EXIT_SUCCESS;
}
