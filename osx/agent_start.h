#pragma once

/// Loading and unloading an agent in the session of a user who is logged in.

#include <string>

namespace osx {
/// Before 10.10.
void launchd_agent_start(unsigned int uid, const std::string& label, bool start, bool in_console);
}  // namespace osx

/// 10.10 and later.
void launchd_agent_start_v2(unsigned int pid, const std::string& user, const std::string& label,
                            bool start);
