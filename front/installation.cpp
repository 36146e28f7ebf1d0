#include "front/installation.h"

#include <cerrno>
#include <string>
#include <vector>

#include "front/paths.h"
#include "front/session_folder.h"
#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/time.h"
#include "osx/job_files.h"

const char* const kVeskRNRServiceName = "com.norvane.korvel.helper";
const char* const kVeskRNRAgentName = "com.norvane.korvel.restart";

namespace {

// Launchd works on after its tool has been started; its outcome is looked at after this long.
constexpr unsigned long long kLaunchdPause_us = 200'000;

std::string session_label(const char* prefix, const std::string& restore_id) {
  return std::string(prefix) + "." + restore_id;
}

std::string daemon_label(const std::string& restore_id) {
  return session_label(kVeskRNRServiceName, restore_id);
}

std::string agent_label(const std::string& restore_id) {
  return session_label(kVeskRNRAgentName, restore_id);
}

// Launchd's tools report nothing that could be trusted; the job file is the one witness.
bool daemon_file_exists(const std::string& label) {
  return muro::file_exists(osx::launchd_daemon_path(label));
}

bool install_daemon(const std::string& label, const std::vector<std::string>& arguments) {
  osx::launchd_daemon_install(label, arguments);
  muro::pause_us(kLaunchdPause_us);
  return daemon_file_exists(label);
}

// What the session's daemon is started with; nullopt when a piece could not be brought into the
// session folder (each mover has logged why).
std::optional<std::vector<std::string>> fill_session_folder(const std::string& exe_path,
                                                            const std::string& restore_file,
                                                            const nil_string& restore_id,
                                                            const muro::fmt_dbg& log) {
  const nil_string restore = moveRestoreFileIfNeeded(restore_file, restore_id);
  if (!restore) {
    log.fmt_verbose("Failed to move restore file");
    return std::nullopt;
  }
  // The path is asked for before the executable moves away from it.
  const nil_string helper = moveHelper(muro::get_exe_path(), restore_id);
  if (!helper) return std::nullopt;
  const nil_string bundle = moveAppBundle(exe_path, restore_id);
  if (!bundle) return std::nullopt;
  return sessionDaemonCommand(*helper, *bundle, *restore);
}

// The log's file may lie in the session folder, beside the helper copy. Lines that are still
// queued would make it anew while the folder is being emptied.
void delete_session_folder(const std::string& restore_id) {
  muro::errlog::wait_for_flush();
  muro::delete_recursive(sessionFolder(restore_id));
}

}  // namespace

std::vector<std::string> sessionDaemonCommand(const std::string& helper, const std::string& bundle,
                                              const std::string& restore_file) {
  return {helper,
          "-installed",
          "1",
          "-exePath",
          appendPathComponent(bundle, "Contents/MacOS/korvel"),
          "-restoreFile",
          restore_file};
}

std::vector<std::string> clientCommand(const std::string& exe_path,
                                       const std::string& restore_file) {
  return {
      exe_path,       "--connect-restore", restore_file, "--on-connect", "desktop?restart=continue",
      "--auto-close", "--wait-for-console"};
}

bool installServiceNoInstant() {
  const muro::fmt_dbg log("installServiceNoInstant");
  try {
    // The shared daemon stays where the installer put it; nothing is copied.
    return install_daemon(kVeskRNRServiceName, {muro::get_exe_path()});
  } catch (const muro::exception& e) {
    log.fmt_verbose("Failed to install daemon: %1%", e.what());
  } catch (...) {
    log.fmt_verbose("Failed to install daemon: unknown error");
  }
  return false;
}

bool installService(const nil_string& exe_path, const nil_string& restore_file,
                    const nil_string& restore_id) {
  const muro::fmt_dbg log("installService");
  const platform::autorelease_pool pool;
  if (!exe_path || !restore_file) {
    log.fmt_verbose("Insufficient arguments, exiting...");
    return false;
  }
  const auto arguments = fill_session_folder(*exe_path, *restore_file, restore_id, log);
  if (!arguments) return false;
  // A filled folder means that the ID names a session, so it is there.
  try {
    return install_daemon(daemon_label(*restore_id), *arguments);
  } catch (const muro::exception& e) {
    log.fmt_verbose("Failed to install daemon: %1%", e.what());
    return false;
  }
}

bool installAgent(const nil_string& restore_id, const nil_string& exe_path,
                  const nil_string& restore_file) {
  if (!namesSession(restore_id) || !exe_path || !restore_file) return false;
  osx::launchd_agent_install(agent_label(*restore_id), clientCommand(*exe_path, *restore_file));
  muro::pause_us(kLaunchdPause_us);
  return agentInstalled(restore_id);
}

bool agentInstalled(const nil_string& restore_id) {
  return namesSession(restore_id) &&
         muro::file_exists(osx::launchd_agent_path(agent_label(*restore_id)));
}

bool uninstallAgent(const nil_string& restore_id) {
  const muro::fmt_dbg log("uninstallAgent");
  if (!namesSession(restore_id)) return false;
  osx::launchd_agent_uninstall(agent_label(*restore_id));
  muro::pause_us(kLaunchdPause_us);
  return !agentInstalled(restore_id);
}

bool uninstallService(const nil_string& restore_id) {
  if (!namesSession(restore_id)) return false;
  const std::string label = daemon_label(*restore_id);
  osx::launchd_daemon_uninstall(label);
  muro::pause_us(kLaunchdPause_us);
  return !daemon_file_exists(label);
}

void uninstallServiceRemove(const nil_string& restore_id) {
  const muro::fmt_dbg log("uninstallServiceRemove");
  if (!namesSession(restore_id)) {
    log.fmt_verbose("Failed to remove launchd daemon plist: %1%", muro::safe_strerror(EINVAL));
    return;
  }
  try {
    log.fmt_verbose("Removing all related files");
    // Deliberate: the job file goes before launchd is asked to stop the job. The job may be this
    // very process, which then ends with nothing left that would start it again.
    muro::delete_file(osx::launchd_daemon_path(daemon_label(*restore_id)));
    delete_session_folder(*restore_id);
    uninstallService(restore_id);  // its result changes nothing any more
  } catch (...) {
    const std::string error = muro::system_error_string();  // before anything changes errno
    log.fmt_verbose("Failed to remove launchd daemon plist: %1%", error);
  }
}
