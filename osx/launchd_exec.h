#pragma once

/// Running a command in a user's launchd session before 10.10.

#include <string>
#include <vector>

namespace osx {
void launchd_exec(unsigned long long uid, std::vector<std::string> command);
}  // namespace osx
