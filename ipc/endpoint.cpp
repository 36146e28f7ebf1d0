#include "ipc/endpoint.h"

#include <unistd.h>

#include "ipc/pipe_server.h"
#include "muro/core/errlog.h"
#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/unique_fd.h"
#include "muro/sys/user_switch.h"

namespace muro {

int ipc_base_count = 0;
int ipc_base_server_count = 0;
int ipc_base_client_count = 0;

namespace {

/// Needs no memory: where an endpoint fails for want of it, its file has to go all the same. It may
/// have been removed or replaced by others; there is nobody to tell.
void delete_socket_file(const std::string& path) noexcept {
  const errno_guard keep;
  char file[ipc_priv::kSocketPathRoom + 1] = {};
  path.copy(file, ipc_priv::kSocketPathRoom);
  const effective_user_gate as_ourselves;
  ::unlink(file);
}

}  // namespace

ipc::ipc(const std::string& name, bool throw_on_failure, bool restricted)
    : ipc(name, throw_on_failure, restricted, false) {}

ipc::ipc(const std::string& name, bool throw_on_failure, bool restricted, defer_serving_t)
    : ipc(name, throw_on_failure, restricted, true) {}

ipc::ipc(const std::string& name, bool throw_on_failure, bool restricted, bool deferred) {
  int descriptor = -1;
  const bool opened = ipc_priv::init_ipc_socket(path_, name, true, descriptor, restricted, false);
  unique_fd socket(descriptor);
  if (!opened) {
    if (throw_on_failure) throw exception::system_error("ipc", "socket");
    const std::string reason = system_error_string();
    fmt_dbg("ipc").fmt_verbose("endpoint %1% cannot be opened: %2%", path_, reason);
    return;
  }
  try {
    pipe_server::settings how;
    how.deferred = deferred;
    server_ = std::make_unique<pipe_server>(socket.get(), this, how);
  } catch (...) {
    delete_socket_file(path_);
    throw;
  }
  static_cast<void>(socket.release());
}

ipc::~ipc() {
  stop_serving();
}

std::string ipc::handle_connection(long /*descriptor*/, const std::string& request) {
  return handle_request(request);
}

void ipc::serve() {
  if (server_) server_->serve();
}

void ipc::stop_serving() noexcept {
  if (!server_) return;
  const errno_guard keep;
  server_.reset();
  delete_socket_file(path_);
}

}  // namespace muro
