#include "ipc/socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <vector>

#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/thread.h"

namespace muro {
namespace {

struct socket_state {
  rec_mutex lock;  // guards the set, and is held for the whole of a retry loop
  std::set<int> reserved;
};

constinit std::atomic<socket_state*> g_state{nullptr};

int default_socket(int domain, int type, int protocol) {
  return ::socket(domain, type, protocol);
}

int default_close(int descriptor) {
  return ::close(descriptor);
}

/// Sockets on reserved numbers; closes them in the order in which they came. Keeps errno.
class set_aside {
 public:
  explicit set_aside(close_function close) : close_(close) {}
  ~set_aside() {
    const errno_guard keep;
    for (const int descriptor : descriptors_) close_(descriptor);
  }
  set_aside(const set_aside&) = delete;
  set_aside& operator=(const set_aside&) = delete;

  /// Makes room, so that the next `add` cannot fail and lose a descriptor.
  void prepare() { descriptors_.reserve(descriptors_.size() + 1); }
  void add(int descriptor) { descriptors_.push_back(descriptor); }

 private:
  close_function close_;
  std::vector<int> descriptors_;
};

socket_state& state_for(const char* caller) {
  socket_state* const state = g_state.load();
  if (state == nullptr) throw exception::function(caller);
  return *state;
}

}  // namespace

void init_make_socket() {
  if (g_state.load() == nullptr) g_state.store(new socket_state);
}

int make_socket(int domain, int type, int protocol, socket_function make, close_function close) {
  const socket_function make_or_default = make != nullptr ? make : default_socket;
  const close_function close_or_default = close != nullptr ? close : default_close;
  if (x_make_socket3 != nullptr)
    return x_make_socket3(domain, type, protocol, make_or_default, close_or_default);
  if (x_make_socket2 != nullptr)
    return x_make_socket2(domain, type, protocol, make_or_default, close);
  if (x_make_socket != nullptr) return x_make_socket(domain, type, protocol, make, close);

  socket_state* const state = g_state.load();
  if (state == nullptr) {
    errno = ENXIO;
    return -1;
  }
  const rec_lock lock(state->lock);
  set_aside aside(close_or_default);  // closed before the lock is released
  for (;;) {
    aside.prepare();
    const int descriptor = make_or_default(domain, type, protocol);
    if (descriptor == -1 || state->reserved.count(descriptor) == 0) return descriptor;
    aside.add(descriptor);
  }
}

void reserve_descriptor(int descriptor) {
  socket_state& state = state_for("reserve_descriptor");
  const rec_lock lock(state.lock);
  state.reserved.insert(descriptor);
}

void release_reserved_descriptor(int descriptor) {
  socket_state& state = state_for("release_reserved_descriptor");
  const rec_lock lock(state.lock);
  state.reserved.erase(descriptor);
}

}  // namespace muro
