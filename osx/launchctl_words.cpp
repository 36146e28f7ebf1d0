#include "osx/launchctl_words.h"

#include "muro/core/fmt.h"
#include "osx/job_files.h"

namespace osx {
namespace {

constexpr const char* kLaunchctl = "/bin/launchctl";
constexpr const char* kSudo = "/usr/bin/sudo";

const char* load_verb(bool load) {
  return load ? "load" : "unload";
}

}  // namespace

command_line launchctl_daemon(const std::string& label, bool load) {
  return {kLaunchctl, load_verb(load), "-w", launchd_daemon_path(label)};
}

command_line launchctl_agent(const std::string& label, bool load) {
  return {kLaunchctl, load_verb(load), "-S", "Aqua", launchd_agent_path(label)};
}

command_line launchctl_remove(const std::string& label) {
  return {kLaunchctl, "remove", label};
}

// "#" and a number is sudo's form of a user who is named by id.
command_line as_user(unsigned int uid, const command_line& command) {
  command_line words{kSudo, "-u", muro::stringify("#", uid)};
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

command_line launchctl_agent_in_login(unsigned int pid, const std::string& user,
                                      const std::string& label, bool load) {
  return {kLaunchctl, "bsexec",        muro::stringify(pid),     kSudo, "-u", user,
          kLaunchctl, load_verb(load), launchd_agent_path(label)};
}

command_line launchctl_agent_in_domain(const std::string& printed_user_id, const std::string& label,
                                       bool load) {
  return {kLaunchctl, load ? "bootstrap" : "bootout", "gui/" + printed_user_id,
          launchd_agent_path(label)};
}

}  // namespace osx
