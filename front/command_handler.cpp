#include "front/command_handler.h"

#include "front/installation.h"
#include "front/session_folder.h"
#include "ipc/packet.h"
#include "muro/sys/files.h"

namespace {

// Deliberate: the agent always starts the client from here, whatever the client says of itself. A
// path from the socket would let anyone have any program started in every user's session.
constexpr const char* kClientExecutable = "/Applications/Korvel.app/Contents/MacOS/korvel";

struct command {
  std::string name;
  std::string argument;
};

// Throws `muro::exception` for a malformed packet. What lies below the two fields is not looked at.
command take_command(std::string packet) {
  command taken;
  muro_packet<std::string>::pop(packet, taken.name);
  muro_packet<std::string>::pop(packet, taken.argument);
  return taken;
}

void register_session(const muro::fmt_dbg& log, const std::string& restore_file) {
  if (!muro::file_exists(kClientExecutable)) {
    log.fmt_verbose("Korvel executable not found");
    return;
  }
  // An argument without an ID fails in the move, which touches nothing then.
  const nil_string restore_id = restoreIDFromFile(restore_file);
  const nil_string moved = moveRestoreFileIfNeeded(restore_file, restore_id);
  if (!moved) {
    log.fmt_verbose("Failed to move restore file");
    return;
  }
  if (!installAgent(restore_id, kClientExecutable, moved))
    log.fmt_verbose("Failed to install agent");
}

// The order counts: a session whose agent is still there keeps its daemon.
void resign_session(const muro::fmt_dbg& log, const std::string& restore_file,
                    const std::string& own_restore_id) {
  const nil_string restore_id = restoreIDFromFile(restore_file);
  if (!uninstallAgent(restore_id)) {
    log.fmt_verbose("Failed to uninstall agent for %1%", restore_file);
    return;
  }
  // Never for the shared helper: its own ID is empty, and the empty ID has failed above.
  if (own_restore_id == restore_id) uninstallServiceRemove(restore_id);
}

void execute(const muro::fmt_dbg& log, const std::string& request,
             const std::string& own_restore_id) {
  const platform::autorelease_pool pool;
  const command taken = take_command(request);
  // Any other command is ignored: an older helper must bear a newer client.
  if (taken.name == "rnr_register") register_session(log, taken.argument);
  if (taken.name == "rnr_resign") resign_session(log, taken.argument, own_restore_id);
}

// Not even a log that finds no memory may end the process.
void log_exception(const muro::fmt_dbg& log) noexcept {
  try {
    log.fmt_verbose("exception");
  } catch (...) {
  }
}

}  // namespace

ipc_communicator::ipc_communicator(const std::string& endpoint_name,
                                   const std::string& own_restore_id)
    : muro::ipc(endpoint_name, false, false, defer_serving), own_restore_id_(own_restore_id) {
  serve();
}

ipc_communicator::~ipc_communicator() {
  stop_serving();
}

std::string ipc_communicator::handle_request(const std::string& request) {
  const muro::fmt_dbg log("commandReceived");
  try {
    execute(log, request, own_restore_id_);
  } catch (...) {
    log_exception(log);
  }
  return {};
}
