#include "osx/job_text.h"

#include "osx/plist_document.h"

namespace osx {

std::string launchd_agent_text(const std::string& label, const std::vector<std::string>& args) {
  muro::plist_document job;
  job.add_string("Label", label);
  job.add_strings("LimitLoadToSessionType", {"Aqua", "LoginWindow"});
  job.add_strings("ProgramArguments", args);
  job.add_bool("KeepAlive", true);
  job.add_bool("RunAtLoad", true);
  return job.finish();
}

// Deliberate: a daemon is kept running by the older "OnDemand" false and has no "KeepAlive".
std::string launchd_daemon_text(const std::string& label, const std::vector<std::string>& args) {
  muro::plist_document job;
  job.add_string("Label", label);
  job.add_strings("ProgramArguments", args);
  job.add_bool("RunAtLoad", true);
  job.add_bool("OnDemand", false);
  return job.finish();
}

}  // namespace osx
