#pragma once

/// Launchd job files: written, loaded, unloaded, removed.

#include <string>
#include <vector>

namespace osx {
std::string launchd_agent_path(const std::string& label);
std::string launchd_daemon_path(const std::string& label);
bool launchd_agent_install_only(const std::string& label, const std::vector<std::string>& args);
void launchd_agent_install(const std::string& label, const std::vector<std::string>& args);
void launchd_agent_uninstall(const std::string& label);
void launchd_daemon_install(const std::string& label, const std::vector<std::string>& args);
void launchd_daemon_start(const std::string& label, bool load);
void launchd_daemon_uninstall(const std::string& label);
}  // namespace osx
