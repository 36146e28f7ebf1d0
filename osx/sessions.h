#pragma once

/// Who is logged in, who owns the console, and whether this process has the display.

#include <map>
#include <string>

/// Before 10.10 user id to launchd directory; from 10.10 on login process id to user name.
using session_map = std::map<unsigned int, std::string>;

session_map get_sessions();
session_map get_sessions_v2();

namespace osx {
unsigned int get_console();
bool attached_to_console();
}  // namespace osx
