// Restore-file paths and IDs. The input is the path of a restore file, as a request's argument or a
// start option brings it.
//
// For every path:
//   - its ID is the one that a second, plain reading of the rule gives;
//   - where the ID names a session, the session's folder, job files and socket are direct children
//     of their folders: no ID leads to another place, nor to the folder itself;
//   - where it names none, it is nil, empty, "." or "..", or holds a zero byte;
//   - the restore file in the session folder has the same ID again, unless ".dat" is within the ID;
//   - the last component of a path that was put together is the component that was put there.

#include "front/installation.h"
#include "front/paths.h"
#include "front/session_folder.h"
#include "fuzz/models.h"
#include "fuzz/target.h"
#include "ipc/endpoint.h"
#include "osx/job_files.h"

namespace {

/// Whether the system, which reads a path up to its first zero byte, takes `path` for an entry of
/// `folder` and for nothing else.
bool is_entry_of(std::string_view path, std::string_view folder) {
  if (path.substr(0, folder.size()) != folder) return false;
  const std::string_view name = path.substr(folder.size());
  if (name.empty() || name == "." || name == "..") return false;
  for (const char c : name)
    if (c == '/' || c == '\0') return false;
  return true;
}

void check_places(const std::string& id) {
  fuzz::require(is_entry_of(sessionFolder(id), "/Library/VeskRuntime/sessions/"),
                "the session's folder is a direct child of the sessions' folder");
  const std::string agent = std::string(kVeskRNRAgentName) + "." + id;
  fuzz::require(is_entry_of(osx::launchd_agent_path(agent), "/Library/LaunchAgents/"),
                "the agent's job file is a direct child of its folder");
  const std::string daemon = std::string(kVeskRNRServiceName) + "." + id;
  fuzz::require(is_entry_of(osx::launchd_daemon_path(daemon), "/Library/LaunchDaemons/"),
                "the daemon's job file is a direct child of its folder");
  const std::string socket = ipc_priv::socket_file("/tmp/korvel_helper_" + id + ".ipc");
  fuzz::require(is_entry_of(socket, "/tmp/korvel_helper_"),
                "the socket is a direct child of its folder");
}

void check_way_back(const std::string& id) {
  const nil_string again = restoreIDFromFile(sessionFolder(id) + "/" + id + ".dat");
  fuzz::require(again.has_value(), "the moved restore file has an ID");
  if (id.find(fuzz::kSuffix) == std::string::npos)
    fuzz::require_equal(*again, id, "the moved restore file has its session's ID");
}

void check_components(const std::string& path, const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos) return;
  fuzz::require_equal(lastPathComponent(appendPathComponent(path, name)), name,
                      "the last component is the one that was appended");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path(reinterpret_cast<const char*>(data), size);
  const nil_string id = restoreIDFromFile(path);
  const nil_string wanted = fuzz::id_of(path);
  fuzz::require(id.has_value() == wanted.has_value(), "there is an ID exactly for a .dat file");
  if (id) fuzz::require_equal(*id, *wanted, "the ID is the name without any .dat");
  if (namesSession(id)) {
    check_places(*id);
    check_way_back(*id);
  } else {
    fuzz::require(
        !id || id->empty() || *id == "." || *id == ".." || id->find('\0') != std::string::npos,
        "every other ID names a session");
  }
  check_components(path, id.value_or(path));
  return 0;
}
