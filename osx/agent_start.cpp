#include "osx/agent_start.h"

#include <optional>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/process.h"
#include "muro/sys/time.h"
#include "osx/job_files.h"
#include "osx/launchd_exec.h"
#include "osx/os_version.h"

namespace {

using arguments = std::vector<std::string>;

constexpr char kLaunchctl[] = "/bin/launchctl";
constexpr char kSudo[] = "/usr/bin/sudo";
constexpr long kIdTimeout_s = 30;
constexpr long long kSudoTimeout_s = 5;
constexpr long long kDetached = -1;
constexpr unsigned long long kAfterLaunchctl_us = 100 * 1000;

arguments launchctl_load(const std::string& label, bool start) {
  return {kLaunchctl, start ? "load" : "unload", "-S", "Aqua", osx::launchd_agent_path(label)};
}

// "#" and a number is sudo's form of a user who is named by id.
void run_as_user(unsigned int uid, const arguments& command) {
  arguments args{"-u", muro::stringify("#", uid)};
  args.insert(args.end(), command.begin(), command.end());
  muro::process::system(kSudo, args, kSudoTimeout_s);
}

void load_as_console_user(const muro::fmt_dbg& log, unsigned int uid, const std::string& label,
                          bool start) {
  log.fmt_verbose("trying in session");
  try {
    run_as_user(uid, launchctl_load(label, start));
  } catch (const muro::exception& e) {
    // Deliberate: the misspelt word is part of the message.
    log.fmt_verbose("failed to run launctl: %1%", e.description());
  }
}

void remove_as_console_user(const muro::fmt_dbg& log, unsigned int uid, const std::string& label) {
  log.fmt_verbose("calling remove");
  try {
    run_as_user(uid, {kLaunchctl, "remove", label});
  } catch (const muro::exception& e) {
    log.fmt_verbose("failed to run launctl remove: %1%", e.description());
  }
}

// What `id` prints for the user, its line end included; nothing when that cannot be learned.
//
// The status is asked for once, right after `id` has closed its output. It is -1 when `id` has not
// quite ended then, and -9 when there was no `id` to run, and neither counts as bad. So an `id`
// that failed may pass for one that worked; its text gives it away, for a user id is never empty.
std::optional<std::string> printed_user_id(const muro::fmt_dbg& log, const std::string& user) {
  try {
    long long status = 0;
    std::string text = muro::process::system_immediate("id", {"-u", user}, &status, kIdTimeout_s);
    if (status < 1 && !text.empty()) return text;
    if (status >= 1) log.fmt_verbose("err: %1%", muro::system_error_string());
  } catch (...) {
    // Whatever kept `id` from running, this user is passed over and the next one is served.
  }
  log.fmt_verbose("failed to retrieve effective user id, will not load for user %1%", user);
  return std::nullopt;
}

void run_launchctl(const arguments& args) {
  muro::process::system(kLaunchctl, args, kDetached);
  muro::pause_us(kAfterLaunchctl_us);
}

}  // namespace

namespace osx {

void launchd_agent_start(unsigned int uid, const std::string& label, bool start, bool in_console) {
  const muro::fmt_dbg log("launchd_agent_start");
  log.fmt_verbose("agent in %1% update (start=%2%) for %3% %4%", uid, start, label, in_console);
  if (!in_console) {
    launchd_exec(uid, launchctl_load(label, start));
    return;
  }
  load_as_console_user(log, uid, label, start);
  if (start) {
    launchd_agent_start(uid, label, true, false);
  } else {
    remove_as_console_user(log, uid, label);
  }
}

}  // namespace osx

void launchd_agent_start_v2(unsigned int pid, const std::string& user, const std::string& label,
                            bool start) {
  const muro::fmt_dbg log("launchd_agent_start_v2");
  log.fmt_verbose("agent in %1% update (start=%2%) for %3%", pid, start, label);
  const std::string path = osx::launchd_agent_path(label);
  if (!osx::is_os_version_or_later(10, 11)) {
    run_launchctl({"bsexec", muro::stringify(pid), kSudo, "-u", user, kLaunchctl,
                   start ? "load" : "unload", path});
    return;
  }
  const std::optional<std::string> user_id = printed_user_id(log, user);
  if (!user_id) return;
  // Deliberate: the line end that `id` printed stays in the argument.
  run_launchctl({start ? "bootstrap" : "bootout", "gui/" + *user_id, path});
}
