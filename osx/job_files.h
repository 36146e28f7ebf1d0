#pragma once

/// Launchd job files: written, loaded, unloaded, removed.
///
/// An agent runs once for every user session and at the login window; its job file lies in
/// /Library/LaunchAgents. A daemon runs once for the system; its file lies in
/// /Library/LaunchDaemons. Both are named after the job's label with ".plist", owned by user 0 and
/// group 0, mode 0644 (launchd.plist(5), launchctl(1)). A file is never writable by others, at no
/// instant and whatever the umask. It appears whole or not at all, and replaces an existing one in
/// one step: it is written as LABEL.new in the same folder, gets mode and owner there, and is
/// renamed. A failure leaves what was there before; a kill may leave LABEL.new besides, which is no
/// job and goes with the next writing or removal.
///
/// Labels are used as they are. `args` is the program to run and its arguments. All operations need
/// root, run on the caller's thread and block as told; they are not meant to run at once for the
/// same label. Each logs through a scope named after itself.

#include <string>
#include <vector>

namespace osx {

/// "/Library/LaunchAgents/" + label + ".plist".
std::string launchd_agent_path(const std::string& label);
/// "/Library/LaunchDaemons/" + label + ".plist".
std::string launchd_daemon_path(const std::string& label);

/// Writes the agent's job file; starts nothing. False (and logged) when it cannot be written.
bool launchd_agent_install_only(const std::string& label, const std::vector<std::string>& args);

/// Writes the agent's job file and starts the agent in the session of every user who is logged in;
/// only the file's presence tells of success. Throws what starting in a session throws
/// (osx/agent_start.h), leaving later sessions out.
void launchd_agent_install(const std::string& label, const std::vector<std::string>& args);

/// Stops the agent in every session, waits 3 s for launchd to let go of it, and removes its job
/// file, present or not. Throws what stopping in a session throws; the file then stays.
void launchd_agent_uninstall(const std::string& label);

/// Writes the daemon's job file and loads it. Throws what `muro::replace_file` throws, with nothing
/// loaded, and what `launchd_daemon_start` throws.
void launchd_daemon_install(const std::string& label, const std::vector<std::string>& args);

/// Has `/bin/launchctl` load or unload the daemon's job file, 100 ms long: launchctl runs detached
/// and its outcome is not examined. Throws `muro::exception` when it cannot be started.
void launchd_daemon_start(const std::string& label, bool load);

/// Unloads the daemon and removes its job file. Throws what `launchd_daemon_start` throws; the
/// removal itself never fails as seen from here.
void launchd_daemon_uninstall(const std::string& label);

}  // namespace osx
