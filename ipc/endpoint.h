#pragma once

/// The local request and reply endpoint.

#include <memory>
#include <string>

class pipe_server;

namespace muro {

class ipc {
 public:
  ipc(const std::string& name, bool throw_on_failure, bool restricted);
  virtual ~ipc();
  ipc(const ipc&) = delete;
  ipc& operator=(const ipc&) = delete;

  virtual std::string handle_connection(long descriptor, const std::string& request);
  virtual std::string handle_request(const std::string& request) = 0;

 private:
  std::unique_ptr<pipe_server> server_;
  std::string path_;
};

extern int ipc_base_count;
extern int ipc_base_server_count;
extern int ipc_base_client_count;

}  // namespace muro

namespace ipc_priv {
bool init_ipc_socket(std::string& path, const std::string& name, bool server, int& descriptor,
                     bool restricted, bool per_user);
}  // namespace ipc_priv
