#include "osx/job_text.h"

#include "osx/property_list.h"

namespace osx {

std::string launchd_agent_text(const std::string& label, const std::vector<std::string>& args) {
  return muro::get_plist({
      muro::plist_elem("Label", label),
      muro::plist_elem("LimitLoadToSessionType", std::vector<std::string>{"Aqua", "LoginWindow"}),
      muro::plist_elem("ProgramArguments", args),
      muro::plist_elem("KeepAlive", true),
      muro::plist_elem("RunAtLoad", true),
  });
}

// Deliberate: a daemon is kept running by the older "OnDemand" false and has no "KeepAlive".
std::string launchd_daemon_text(const std::string& label, const std::vector<std::string>& args) {
  return muro::get_plist({
      muro::plist_elem("Label", label),
      muro::plist_elem("ProgramArguments", args),
      muro::plist_elem("RunAtLoad", true),
      muro::plist_elem("OnDemand", false),
  });
}

}  // namespace osx
