#pragma once

/// The text of the helper's launchd job files (launchd.plist(5)); nothing here touches a file.

#include <string>
#include <vector>

namespace osx {

/// An agent, for users' sessions and the login window, kept running. Throws what
/// `muro::escape_xml_text` throws.
std::string launchd_agent_text(const std::string& label, const std::vector<std::string>& args);

/// A daemon, kept running. Throws the same.
std::string launchd_daemon_text(const std::string& label, const std::vector<std::string>& args);

}  // namespace osx
