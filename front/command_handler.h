#pragma once

/// What the running client asks of the helper.
///
/// A request is a packet (ipc/packet.h) with two strings, the command and its argument; the client
/// appends the command last. The reply is always empty: the client learns that its request has
/// arrived, not how it went. The log tells that.
///
///     command        argument                 done
///     rnr_register   path of a restore file   the restore file moves into its session folder and
///                                             the restart agent for the client is installed
///     rnr_resign     path of a restore file   the restart agent is removed, and for this helper's
///                                             own session all else of it, this daemon included
///     any other      any                      nothing
///
/// An argument that gives no ID that names a session makes the request fail: nothing is moved,
/// installed or removed. No request ends the process.

#include <string>

#include "ipc/endpoint.h"
#include "muro/core/errlog.h"

class ipc_communicator : public muro::ipc {
 public:
  /// Opens the endpoint for all users and serves it until the object goes. An endpoint that cannot
  /// be opened is logged by the base; the object then exists and serves nothing. `own_restore_id`
  /// is the session that this process runs for, empty for the shared helper.
  ipc_communicator(const std::string& endpoint_name, const std::string& own_restore_id);

  /// Stops serving; waits for the request in hand.
  ~ipc_communicator() override;

  /// Executes one request. Runs on the endpoint's thread, one request at a time. Throws nothing: a
  /// malformed packet or any other exception is logged as "exception". Logs through
  /// "commandReceived".
  std::string handle_request(const std::string& request) override;

 private:
  const std::string own_restore_id_;
  [[maybe_unused]] const muro::fmt_dbg log_{"ipc_communicator"};
};

/// Deliberate: an empty placeholder; nothing makes or registers one.
class WorkspaceListener {
 public:
  void workspaceNotificationReceived() {}
};
