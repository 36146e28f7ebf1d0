#pragma once

/// Private to ipc: the system call of `init_ipc_socket` whose failure a test cannot bring about by
/// other means. Constant-initialised; tests alone write it.

#include <sys/stat.h>

namespace ipc_priv {

using chmod_function = int (*)(const char*, mode_t);
extern constinit chmod_function chmod_call;

}  // namespace ipc_priv
