#pragma once

/// The command lines with which launchd is driven, program first, as they are run; nothing here runs
/// them. Which one serves when: osx/agent_start.h.

#include <string>
#include <vector>

namespace osx {

using command_line = std::vector<std::string>;

/// `/bin/launchctl load -w P`, or unload: a daemon, P its job file.
command_line launchctl_daemon(const std::string& label, bool load);

/// `/bin/launchctl load -S Aqua P`, or unload: an agent, P its job file.
command_line launchctl_agent(const std::string& label, bool load);

/// `/bin/launchctl remove LABEL`.
command_line launchctl_remove(const std::string& label);

/// `/usr/bin/sudo -u #UID COMMAND`.
command_line as_user(unsigned int uid, const command_line& command);

/// `/bin/launchctl bsexec PID /usr/bin/sudo -u USER /bin/launchctl load P`, or unload: an agent in
/// the bootstrap context of a login.
command_line launchctl_agent_in_login(unsigned int pid, const std::string& user,
                                      const std::string& label, bool load);

/// `/bin/launchctl bootstrap gui/ID P`, or bootout. `printed_user_id` is what `id -u` printed.
/// Deliberate: its line end stays in the argument.
command_line launchctl_agent_in_domain(const std::string& printed_user_id, const std::string& label,
                                       bool load);

}  // namespace osx
