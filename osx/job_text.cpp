#include "osx/job_text.h"

#include "osx/property_list.h"

namespace osx {

// The elements are made where they stay: an initialiser list would have each of them copied.
std::string launchd_agent_text(const std::string& label, const std::vector<std::string>& args) {
  std::vector<muro::plist_elem> elements;
  elements.reserve(5);
  elements.emplace_back("Label", label);
  elements.emplace_back("LimitLoadToSessionType", std::vector<std::string>{"Aqua", "LoginWindow"});
  elements.emplace_back("ProgramArguments", args);
  elements.emplace_back("KeepAlive", true);
  elements.emplace_back("RunAtLoad", true);
  return muro::get_plist(elements);
}

// Deliberate: a daemon is kept running by the older "OnDemand" false and has no "KeepAlive".
std::string launchd_daemon_text(const std::string& label, const std::vector<std::string>& args) {
  std::vector<muro::plist_elem> elements;
  elements.reserve(4);
  elements.emplace_back("Label", label);
  elements.emplace_back("ProgramArguments", args);
  elements.emplace_back("RunAtLoad", true);
  elements.emplace_back("OnDemand", false);
  return muro::get_plist(elements);
}

}  // namespace osx
