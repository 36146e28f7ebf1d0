#include "osx/agent_start.h"

#include <optional>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/process.h"
#include "muro/sys/time.h"
#include "osx/launchctl_words.h"
#include "osx/launchd_exec.h"
#include "osx/os_version.h"

namespace {

using osx::command_line;

constexpr long kIdTimeout_s = 30;
constexpr long long kSudoTimeout_s = 5;
constexpr long long kDetached = -1;
constexpr unsigned long long kAfterLaunchctl_us = 100 * 1000;

void run(const command_line& words, long long timeout_s) {
  muro::process::system(words.front(), {words.begin() + 1, words.end()}, timeout_s);
}

void load_as_console_user(const muro::fmt_dbg& log, unsigned int uid, const std::string& label,
                          bool start) {
  log.fmt_verbose("trying in session");
  try {
    run(osx::as_user(uid, osx::launchctl_agent(label, start)), kSudoTimeout_s);
  } catch (const muro::exception& e) {
    // Deliberate: the misspelt word is part of the message.
    log.fmt_verbose("failed to run launctl: %1%", e.description());
  }
}

void remove_as_console_user(const muro::fmt_dbg& log, unsigned int uid, const std::string& label) {
  log.fmt_verbose("calling remove");
  try {
    run(osx::as_user(uid, osx::launchctl_remove(label)), kSudoTimeout_s);
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

void run_launchctl(const command_line& words) {
  run(words, kDetached);
  muro::pause_us(kAfterLaunchctl_us);
}

}  // namespace

namespace osx {

void launchd_agent_start(unsigned int uid, const std::string& label, bool start, bool in_console) {
  const muro::fmt_dbg log("launchd_agent_start");
  log.fmt_verbose("agent in %1% update (start=%2%) for %3% %4%", uid, start, label, in_console);
  if (!in_console) {
    launchd_exec(uid, launchctl_agent(label, start));
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
  if (!osx::is_os_version_or_later(10, 11)) {
    run_launchctl(osx::launchctl_agent_in_login(pid, user, label, start));
    return;
  }
  const std::optional<std::string> user_id = printed_user_id(log, user);
  if (!user_id) return;
  run_launchctl(osx::launchctl_agent_in_domain(*user_id, label, start));
}
