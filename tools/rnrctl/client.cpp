#include "tools/rnrctl/client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "ipc/endpoint.h"
#include "ipc/frame.h"
#include "ipc/packet.h"
#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"

namespace rnrctl {
namespace {

// How long `connect` may wait for room in a full queue; read by the socket hook below.
long long connect_limit_ms = 0;

// Makes a socket whose `connect` gives up: on Linux the send limit holds for connecting too. (A
// system that refuses at once when the queue is full needs no limit.)
int limited_socket(int domain, int type, int protocol, muro::socket_function,
                   muro::close_function) {
  const int made = ::socket(domain, type, protocol);
  if (made == -1) return -1;
  const timeval limit{static_cast<time_t>(connect_limit_ms / 1000),
                      static_cast<suseconds_t>(connect_limit_ms % 1000 * 1000)};
  ::setsockopt(made, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  ::fcntl(made, F_SETFD, FD_CLOEXEC);
  return made;
}

// Lends `limited_socket` to the runtime while it lives.
class limited_connect {
 public:
  explicit limited_connect(long long limit_ms) : before_(muro::x_make_socket) {
    connect_limit_ms = limit_ms;
    muro::x_make_socket = limited_socket;
  }
  ~limited_connect() { muro::x_make_socket = before_; }
  limited_connect(const limited_connect&) = delete;
  limited_connect& operator=(const limited_connect&) = delete;

 private:
  muro::make_socket_hook before_;
};

[[noreturn]] void fail(exit_status status, const std::string& line, int error = 0) {
  throw failure(status, error == 0 ? line : line + ": " + muro::safe_strerror(error));
}

[[noreturn]] void fail_to_connect(const std::string& path, int error) {
  switch (error) {
    case ENOENT:
    case ECONNREFUSED:
      fail(exit_status::no_endpoint, "no helper serves " + path, error);
    case EAGAIN:
      fail(exit_status::timed_out, "time-out while waiting for the helper's turn at " + path);
    default:
      fail(exit_status::failed, "cannot connect to " + path, error);
  }
}

muro::unique_fd connect_to(const std::string& name, const deadline& end) {
  const limited_connect lend(std::max(end.left_ms(), 1));
  std::string path;
  int made = -1;
  const bool connected = ipc_priv::init_ipc_socket(path, name, false, made, false, false);
  const int error = errno;
  muro::unique_fd connection(made);
  if (!connected) fail_to_connect(path, error);
  ::fcntl(made, F_SETFL, ::fcntl(made, F_GETFL) | O_NONBLOCK);
  return connection;
}

// Blocks until `events` or the deadline.
void wait_for(int descriptor, short events, const deadline& end) {
  pollfd entry{descriptor, events, 0};
  int ready;
  do {
    ready = ::poll(&entry, 1, end.left_ms());
  } while (ready == -1 && errno == EINTR);
  if (ready == -1) fail(exit_status::failed, "cannot wait for the helper", errno);
  if (ready == 0) fail(exit_status::timed_out, "time-out: the helper has not answered");
}

bool transient(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

bool hung_up(int error) {
  return error == EPIPE || error == ECONNRESET;
}

[[noreturn]] void fail_refused() {
  fail(exit_status::refused, "the helper refused the request: it closed the connection unanswered");
}

// Moves bytes over a connection in non-blocking mode until the deadline. Failures are thrown.
class timed_transfer {
 public:
  timed_transfer(int descriptor, const deadline& end) : descriptor_(descriptor), end_(end) {}

  bool write(const unsigned char* bytes, int length) {
    for (int sent = 0; sent < length;) {
      wait_for(descriptor_, POLLOUT, end_);
      const ssize_t n = ::write(descriptor_, bytes + sent, static_cast<std::size_t>(length - sent));
      if (n >= 0) sent += static_cast<int>(n);
      if (n >= 0 || transient(errno)) continue;
      if (hung_up(errno)) fail_refused();
      fail(exit_status::failed, "cannot send the request", errno);
    }
    return true;
  }

  bool read(unsigned char* bytes, int length) {
    for (int got = 0; got < length;) {
      wait_for(descriptor_, POLLIN, end_);
      const ssize_t n = ::read(descriptor_, bytes + got, static_cast<std::size_t>(length - got));
      if (n > 0) got += static_cast<int>(n);
      if (n > 0 || (n < 0 && transient(errno))) continue;
      if (n == 0 || hung_up(errno)) fail_refused();
      fail(exit_status::failed, "cannot read the answer", errno);
    }
    return true;
  }

 private:
  int descriptor_;
  const deadline& end_;
};

}  // namespace

deadline::deadline(long long limit_ms) : end_ms_(muro::relative_time() + limit_ms) {}

int deadline::left_ms() const {
  return static_cast<int>(std::clamp(end_ms_ - muro::relative_time(), 0LL, 1LL * INT_MAX));
}

std::string make_request(const std::string& command, const std::string& argument) {
  std::string packet;
  muro_packet<std::string>::push(packet, argument);
  muro_packet<std::string>::push(packet, command);
  return packet;
}

std::string exchange(const std::string& name, const std::string& packet, long long limit_ms) {
  const deadline end(limit_ms);
  const muro::unique_fd connection = connect_to(name, end);
  timed_transfer transfer(connection.get(), end);
  std::string reply;
  if (!ipc_priv::write_frame(transfer, packet))
    fail(exit_status::failed, "the request is too long");
  if (!ipc_priv::read_frame(transfer, reply)) fail(exit_status::failed, "the answer is too long");
  return reply;
}

}  // namespace rnrctl
