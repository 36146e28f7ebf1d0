#pragma once

/// What the commands that send a request share.

#include <string>

namespace rnrctl {

/// `path` as the helper has to hear it: absolute. Links are kept as they are, because the ID is in
/// the name that was given, not in the name of what it points at.
std::string absolute_path(const std::string& path);

}  // namespace rnrctl
