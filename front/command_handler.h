#pragma once

/// What the running client asks of the helper.

#include <string>

#include "ipc/endpoint.h"

class ipc_communicator : public muro::ipc {
 public:
  ipc_communicator(const std::string& endpoint_name, const std::string& own_restore_id);
  ~ipc_communicator() override;
  std::string handle_request(const std::string& request) override;

 private:
  std::string own_restore_id_;
};

/// Deliberate: an empty placeholder; nothing makes or registers one.
class WorkspaceListener {
 public:
  void workspaceNotificationReceived() {}
};
