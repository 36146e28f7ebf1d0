#pragma once

/// Loading and unloading an agent in the session of a user who is logged in.
///
/// launchd looks at a new job file at the next login only. To have it act at once, the helper,
/// running as root, enters the user's launchd context; how depends on the release. With U the user
/// id, N the user name, I the login's process id, L the label, P the agent's job file:
///
///     before 10.10, console user
///       start  /usr/bin/sudo -u #U /bin/launchctl load -S Aqua P, then as for others
///       stop   /usr/bin/sudo -u #U /bin/launchctl unload -S Aqua P, then
///              /usr/bin/sudo -u #U /bin/launchctl remove L
///     before 10.10, others
///       start  through the user's launchd: /bin/launchctl load -S Aqua P
///       stop   the same with unload
///     10.10
///       start  /bin/launchctl bsexec I /usr/bin/sudo -u N /bin/launchctl load P
///       stop   the same with unload
///     10.11 and later
///       start  /bin/launchctl bootstrap gui/ and what `id -u N` printed, P
///       stop   the same with bootout
///
/// What launchctl makes of it is never examined. Both functions log through a scope named after
/// themselves and run on the caller's thread.

#include <string>

namespace osx {

/// Before 10.10. `in_console` says that `uid` owns the console and that this process has the
/// display. Each program run by sudo has 5 s; a `muro::exception` from running it is logged, every
/// other exception passes on, and so does every one from `osx::launchd_exec`.
void launchd_agent_start(unsigned int uid, const std::string& label, bool start, bool in_console);

}  // namespace osx

/// 10.10 and later. `pid` and `user` are an entry of `get_sessions_v2`. Runs launchctl detached and
/// gives it 100 ms. From 10.11 on a user whose id cannot be learned is passed over (logged). Throws
/// `muro::exception` when launchctl cannot be started.
void launchd_agent_start_v2(unsigned int pid, const std::string& user, const std::string& label,
                            bool start);
