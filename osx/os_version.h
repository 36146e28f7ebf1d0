#pragma once

/// Which macOS release is running.

namespace muro {
int os_version_osx(int& major, int& minor);
}  // namespace muro

namespace osx {
bool is_os_version_or_later(int major, int minor);
}  // namespace osx
