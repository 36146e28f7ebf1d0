#pragma once

/// Who is logged in, who owns the console, and whether this process has the display.
///
/// Nothing is kept: each call reads the system afresh. The cursor of the login records belongs to
/// the whole process (getutxent(3)), so the two session functions must not run at once with each
/// other or with another reader of the records. Each function logs through a scope named after
/// itself.

#include <map>
#include <string>

/// The sessions, by ascending key. What it holds depends on the release:
///
/// | release | key | value |
/// |---|---|---|
/// | before 10.10 | user id | path of that user's launchd directory, /tmp/launchd-... |
/// | 10.10 and later | process id of the console login | name of the user |
using session_map = std::map<unsigned int, std::string>;

/// The sessions of the running release. Before 10.10 the directories that match "/tmp/launchd-*",
/// by owner; of several that one user owns the last in `muro::find_files`' order counts. Never
/// throws; what cannot be read is left out.
session_map get_sessions();

/// The sessions of 10.10 and later: the login records of type `USER_PROCESS` whose line is
/// "console"; of several with one process id the last counts. Empty when there are none.
session_map get_sessions_v2();

namespace osx {

/// The id of the user who owns "/dev/console". Tries 101 times, 100 ms apart. Throws
/// `muro::exception` ":Error in 'get_console'" when the process is not root (logged as "need to be
/// admin") or when the console does not turn up.
unsigned int get_console();

/// Whether the calling security session has graphic access (`SessionGetInfo`). Never throws.
bool attached_to_console();

}  // namespace osx
