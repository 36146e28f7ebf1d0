#include "tools/rnrctl/plan.h"

#include "front/installation.h"
#include "front/paths.h"
#include "front/session_folder.h"
#include "muro/core/fmt.h"
#include "osx/job_files.h"
#include "osx/job_text.h"

namespace rnrctl {
namespace {

using steps = std::vector<planned_step>;
using kind = planned_step::kind;

constexpr const char* kClient = "/Applications/Korvel.app/Contents/MacOS/korvel";
constexpr int kAfterLaunchctl_ms = 100, kAfterInstallation_ms = 200, kBeforeRemoval_ms = 3000;

planned_step folder(const std::string& path) {
  return {kind::folder, path, {}, "0777", {}, {}};
}

planned_step move(const std::string& from, const std::string& to) {
  return {kind::move, to, from, {}, {}, {}};
}

planned_step write(const std::string& path, const std::string& text) {
  return {kind::write, path, {}, {}, text, {}};
}

planned_step run(const osx::command_line& words) {
  return {kind::run, {}, {}, {}, {}, words};
}

planned_step user_job(unsigned uid, const osx::command_line& words) {
  return {kind::user_job, {}, {}, {}, {}, words, uid};
}

planned_step pause(int pause_ms) {
  return {kind::pause, {}, {}, {}, {}, {}, 0, pause_ms};
}

planned_step remove(const std::string& path) {
  return {kind::remove, path, {}, {}, {}, {}};
}

bool is_or_later(const muro::os_release& release, int major, int minor) {
  return release.major > major || (release.major == major && release.minor >= minor);
}

std::string agent_label(const std::string& id) {
  return std::string(kVeskRNRAgentName) + "." + id;
}

std::string daemon_label(const std::string& id) {
  return std::string(kVeskRNRServiceName) + "." + id;
}

void start_before_10_10(const planned_user& user, bool at_console, const std::string& label,
                        bool start, steps& out) {
  const osx::command_line load = osx::launchctl_agent(label, start);
  if (at_console) out.push_back(run(osx::as_user(user.uid, load)));
  if (at_console && !start) {
    out.push_back(run(osx::as_user(user.uid, osx::launchctl_remove(label))));
  } else {
    out.push_back(user_job(user.uid, load));
  }
}

void start_agent(const planned_mac& mac, const std::string& label, bool start, steps& out) {
  for (const planned_user& user : mac.users) {
    if (!is_or_later(mac.release, 10, 10)) {
      start_before_10_10(user, user.name == mac.console, label, start, out);
      continue;
    }
    const bool by_domain = is_or_later(mac.release, 10, 11);
    if (by_domain) out.push_back(run({"id", "-u", user.name}));
    out.push_back(run(
        by_domain ? osx::launchctl_agent_in_domain(muro::stringify(user.uid, "\n"), label, start)
                  : osx::launchctl_agent_in_login(user.login_pid, user.name, label, start)));
    out.push_back(pause(kAfterLaunchctl_ms));
  }
}

void remove_job_file(const std::string& path, steps& out) {
  out.push_back(run({"/bin/rm", "-fr", path}));
  out.push_back(pause(kAfterLaunchctl_ms));
}

void load_daemon(const std::string& label, bool load, steps& out) {
  out.push_back(run(osx::launchctl_daemon(label, load)));
  out.push_back(pause(kAfterLaunchctl_ms));
}

void install_daemon(const std::string& label, const std::vector<std::string>& command, steps& out) {
  out.push_back(write(osx::launchd_daemon_path(label), osx::launchd_daemon_text(label, command)));
  load_daemon(label, true, out);
  out.push_back(pause(kAfterInstallation_ms));
}

std::string kept_file(const std::string& id) {
  return sessionFolder(id) + "/" + id + ".dat";
}

}  // namespace

std::vector<planned_step> plan_register(const planned_mac& mac, const std::string& restore_file) {
  const std::string id = *restoreIDFromFile(restore_file);
  const std::string label = agent_label(id);
  steps out{folder(sessionFolder(id)), move(restore_file, kept_file(id))};
  out.push_back(write(osx::launchd_agent_path(label),
                      osx::launchd_agent_text(label, clientCommand(kClient, kept_file(id)))));
  start_agent(mac, label, true, out);
  out.push_back(pause(kAfterInstallation_ms));
  return out;
}

std::vector<planned_step> plan_resign(const planned_mac& mac, const std::string& restore_file) {
  const std::string label = agent_label(*restoreIDFromFile(restore_file));
  steps out;
  start_agent(mac, label, false, out);
  out.push_back(pause(kBeforeRemoval_ms));
  remove_job_file(osx::launchd_agent_path(label), out);
  out.push_back(pause(kAfterInstallation_ms));
  return out;
}

std::vector<planned_step> plan_install(const planned_mac& mac) {
  steps out;
  install_daemon(kVeskRNRServiceName, {mac.helper}, out);
  return out;
}

std::vector<planned_step> plan_install_session(const planned_mac& mac, const std::string& bundle,
                                               const std::string& restore_file) {
  const std::string id = *restoreIDFromFile(restore_file);
  const std::string home = sessionFolder(id);
  const std::string copy = home + "/app/" + lastPathComponent(bundle);
  const std::string helper = home + "/helper/KorvelHelper";
  steps out{folder(home), move(restore_file, kept_file(id)), folder(home + "/helper/"),
            move(mac.helper, helper), folder(home + "/app/")};
  out.push_back({kind::copy, copy, bundle, "0777", {}, {}});
  install_daemon(daemon_label(id), sessionDaemonCommand(helper, copy, kept_file(id)), out);
  return out;
}

std::vector<planned_step> plan_remove_session(const planned_mac& mac,
                                              const std::string& restore_file) {
  const std::string id = *restoreIDFromFile(restore_file);
  steps out = plan_resign(mac, restore_file);
  out.push_back(remove(osx::launchd_daemon_path(daemon_label(id))));
  out.push_back(remove(sessionFolder(id)));
  load_daemon(daemon_label(id), false, out);
  remove_job_file(osx::launchd_daemon_path(daemon_label(id)), out);
  out.push_back(pause(kAfterInstallation_ms));
  return out;
}

namespace {

// Words as a person would type them; a line end shows as what it is.
std::string shown(const osx::command_line& words) {
  std::string line;
  for (const std::string& word : words) {
    std::string text = word;
    for (std::size_t at; (at = text.find('\n')) != std::string::npos;) text.replace(at, 1, "\\n");
    (line += line.empty() ? "" : " ") += text;
  }
  return line;
}

std::string indented(const std::string& text) {
  std::string out = "\n    ";
  for (const char c : text) out += c == '\n' ? std::string("\n    ") : std::string(1, c);
  return out;
}

}  // namespace

std::string line_of(const planned_step& step) {
  switch (step.what) {
    case kind::folder:
      return "folder  " + step.path + "  " + step.mode;
    case kind::move:
      return "move    " + step.from + "  to  " + step.path;
    case kind::copy:
      return "copy    " + step.from + "  to  " + step.path + "  " + step.mode + " root:admin";
    case kind::write:
      return "write   " + step.path + "  0644 0:0" + indented(step.text);
    case kind::run:
      return "run     " + shown(step.words);
    case kind::user_job:
      return muro::stringify("submit  to the launchd of user ", step.uid, ": ", shown(step.words));
    case kind::pause:
      return muro::stringify("pause   ", step.pause_ms, " ms");
    case kind::remove:
      return "remove  " + step.path;
  }
  return {};
}

}  // namespace rnrctl
