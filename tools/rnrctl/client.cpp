#include "tools/rnrctl/client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "ipc/endpoint.h"
#include "ipc/packet.h"
#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"

namespace rnrctl {
namespace {

constexpr std::uint32_t kMaxBody = 0x100000;

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

void send_all(int descriptor, const std::string& bytes, const deadline& end) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    wait_for(descriptor, POLLOUT, end);
    const ssize_t n = ::write(descriptor, bytes.data() + sent, bytes.size() - sent);
    if (n >= 0) sent += static_cast<std::size_t>(n);
    if (n >= 0 || transient(errno)) continue;
    if (hung_up(errno)) fail_refused();
    fail(exit_status::failed, "cannot send the request", errno);
  }
}

std::string receive_exactly(int descriptor, std::size_t length, const deadline& end) {
  std::string bytes(length, '\0');
  for (std::size_t got = 0; got < length;) {
    wait_for(descriptor, POLLIN, end);
    const ssize_t n = ::read(descriptor, bytes.data() + got, length - got);
    if (n > 0) got += static_cast<std::size_t>(n);
    if (n > 0 || (n < 0 && transient(errno))) continue;
    if (n == 0 || hung_up(errno)) fail_refused();
    fail(exit_status::failed, "cannot read the answer", errno);
  }
  return bytes;
}

std::string frame_of(const std::string& body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  std::string frame(sizeof length, '\0');
  std::memcpy(frame.data(), &length, sizeof length);
  return frame + body;
}

std::string receive_frame(int descriptor, const deadline& end) {
  std::uint32_t length = 0;
  std::memcpy(&length, receive_exactly(descriptor, sizeof length, end).data(), sizeof length);
  if (length > kMaxBody) fail(exit_status::failed, "the answer is no frame of the helper's");
  return receive_exactly(descriptor, length, end);
}

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
  send_all(connection.get(), frame_of(packet), end);
  return receive_frame(connection.get(), end);
}

}  // namespace rnrctl
