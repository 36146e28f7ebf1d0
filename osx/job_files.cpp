#include "osx/job_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/process.h"
#include "muro/sys/time.h"
#include "muro/sys/xfile.h"
#include "osx/agent_start.h"
#include "osx/job_text.h"
#include "osx/launchctl_words.h"
#include "osx/os_version.h"
#include "osx/sessions.h"

namespace osx {
namespace {

constexpr mode_t kJobFileMode = 0644;
constexpr unsigned long long kAfterLaunchctl_us = 100 * 1000;
constexpr unsigned long long kAfterRemoval_us = 100 * 1000;
constexpr unsigned long long kBeforeAgentRemoval_us = 3000 * 1000;
constexpr long long kRemovalTimeout_s = 1000;
constexpr long long kDetached = -1;

void ignore_result(int) {}

// Where a job file is written before it is one: launchd takes files ending in ".plist" alone for
// jobs (launchctl(1), load), and no other job's file has this name. No longer than the job file's.
std::string unfinished(const std::string& path) {
  return path.substr(0, path.rfind('.')) + ".new";
}

// Deliberate: a job file that keeps other rights is left to launchd, which refuses it.
void give_to_launchd(const char* path) {
  ignore_result(::chmod(path, kJobFileMode));
  ignore_result(::chown(path, 0, 0));
}

void write_job_file(const std::string& path, const std::string& content) {
  muro::replace_file(path, unfinished(path), content, give_to_launchd);
}

void remove_job_file(const std::string& path) {
  ::unlink(unfinished(path).c_str());  // left where the writer was killed
  try {
    muro::process::system("/bin/rm", {"-fr", path}, kRemovalTimeout_s);
    muro::pause_us(kAfterRemoval_us);
  } catch (...) {
    // The file's absence is the only test of success, and it is the caller's.
  }
}

// Starts or stops the agent in the session of every user who is logged in.
void update_sessions(const std::string& label, bool start) {
  const session_map sessions = get_sessions();
  if (is_os_version_or_later(10, 10)) {
    for (const auto& [pid, user] : sessions) launchd_agent_start_v2(pid, user, label, start);
    return;
  }
  const bool attached = attached_to_console();
  const unsigned int console_user = get_console();
  for (const auto& [uid, folder] : sessions) {
    launchd_agent_start(uid, label, start, attached && uid == console_user);
  }
}

}  // namespace

std::string launchd_agent_path(const std::string& label) {
  return "/Library/LaunchAgents/" + label + ".plist";
}

std::string launchd_daemon_path(const std::string& label) {
  return "/Library/LaunchDaemons/" + label + ".plist";
}

bool launchd_agent_install_only(const std::string& label, const std::vector<std::string>& args) {
  const muro::fmt_dbg log("launchd_agent_install_only");
  const std::string path = launchd_agent_path(label);
  const std::string content = launchd_agent_text(label, args);
  log.fmt_verbose("writing pinfo: %1%", path);
  try {
    write_job_file(path, content);
  } catch (...) {
    log.fmt_verbose("unable to write pinfo");
    return false;
  }
  return true;
}

void launchd_agent_install(const std::string& label, const std::vector<std::string>& args) {
  const muro::fmt_dbg log("launchd_agent_install");
  if (!launchd_agent_install_only(label, args)) return;
  update_sessions(label, true);
}

void launchd_agent_uninstall(const std::string& label) {
  const muro::fmt_dbg log("launchd_agent_uninstall");
  const std::string path = launchd_agent_path(label);
  log.fmt_verbose("stopping %1%...", path);
  update_sessions(label, false);
  muro::pause_us(kBeforeAgentRemoval_us);
  remove_job_file(path);
}

void launchd_daemon_install(const std::string& label, const std::vector<std::string>& args) {
  const muro::fmt_dbg log("launchd_daemon_install");
  const std::string path = launchd_daemon_path(label);
  const std::string content = launchd_daemon_text(label, args);
  log.fmt_verbose("writing pinfo: %1%", path);
  write_job_file(path, content);
  launchd_daemon_start(label, true);
}

void launchd_daemon_start(const std::string& label, bool load) {
  const muro::fmt_dbg log("launchd_daemon_start");
  // Deliberate: the line shows the flag, not the label.
  log.fmt_verbose("launching %1%", load);
  const command_line words = launchctl_daemon(label, load);
  muro::process::system(words.front(), {words.begin() + 1, words.end()}, kDetached);
  muro::pause_us(kAfterLaunchctl_us);
}

void launchd_daemon_uninstall(const std::string& label) {
  const muro::fmt_dbg log("launchd_daemon_uninstall");
  launchd_daemon_start(label, false);
  remove_job_file(launchd_daemon_path(label));
}

}  // namespace osx
