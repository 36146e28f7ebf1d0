#include "ipc/endpoint_socket.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "ipc/endpoint.h"
#include "ipc/socket.h"
#include "muro/core/errno_guard.h"
#include "muro/sys/files.h"
#include "muro/sys/pipe.h"
#include "muro/sys/user_switch.h"

namespace ipc_priv {

constinit chmod_function chmod_call = ::chmod;

namespace {

constexpr int kBacklog = 20;
constexpr mode_t kRestrictedMode = 0660;
constexpr mode_t kOpenMode = 0666;

constexpr std::size_t kPathOffset = 2;
static_assert(offsetof(sockaddr_un, sun_path) == kPathOffset);
static_assert(sizeof(sockaddr_un{}.sun_path) >= kSocketPathRoom);

struct local_address {
  sockaddr_un address{};  // zero-filled, so the length byte, where there is one, is 0
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

local_address address_of(const std::string& path) {
  local_address result;
  const std::size_t copied = std::min(path.size(), kSocketPathRoom);
  result.address.sun_family = AF_UNIX;
  std::memcpy(result.address.sun_path, path.data(), copied);
  result.length = static_cast<socklen_t>(copied + kPathOffset);
  return result;
}

bool make_blocking(int descriptor) {
  int off = 0;
  return ::ioctl(descriptor, FIONBIO, &off) == 0;
}

bool listen_with_mode(int descriptor, const std::string& file, bool restricted) {
  if (::listen(descriptor, kBacklog) == 0 &&
      chmod_call(file.c_str(), restricted ? kRestrictedMode : kOpenMode) == 0)
    return true;
  const muro::errno_guard keep;
  ::unlink(file.c_str());
  return false;
}

bool open_server(int descriptor, const std::string& path, const std::string& file,
                 bool restricted) {
  if (!make_blocking(descriptor)) return false;
  const local_address address = address_of(path);
  const muro::effective_user_gate as_ourselves;
  ::unlink(file.c_str());
  return ::bind(descriptor, address.get(), address.length) == 0 &&
         listen_with_mode(descriptor, file, restricted);
}

bool open_client(int descriptor, const std::string& path) {
  const local_address address = address_of(path);
  return ::connect(descriptor, address.get(), address.length) == 0;
}

}  // namespace

std::string socket_file(const std::string& path) {
  return path.substr(0, kSocketPathRoom);
}

bool init_ipc_socket(std::string& path, const std::string& name, bool server, int& descriptor,
                     bool restricted, bool per_user) {
  path = (per_user ? muro::user_dir() + "/" : "/tmp/") + name + ".ipc";
  descriptor = -1;
  if (path.find('\0') != std::string::npos) {
    errno = EINVAL;  // cut there it would be another file, which a server would even remove
    return false;
  }
  const std::string file = socket_file(path);  // nothing needs memory once there is a descriptor
  descriptor = muro::make_socket(AF_UNIX, SOCK_STREAM, 0, nullptr, nullptr);
  if (descriptor == -1) return false;
  muro::set_close_on_exec(descriptor);
  return server ? open_server(descriptor, path, file, restricted) : open_client(descriptor, path);
}

}  // namespace ipc_priv
