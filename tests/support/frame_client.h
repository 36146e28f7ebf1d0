#pragma once

/// A client of a local endpoint that can also misbehave: it sends whatever bytes it is told to.
/// Every wait is bounded, so that a server that does not answer fails the test and hangs nothing.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

#include "muro/sys/unique_fd.h"

namespace test {

/// A frame as it travels: 4 bytes of length, then the body.
inline std::string frame(const std::string& body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  std::string bytes(sizeof length, '\0');
  std::memcpy(bytes.data(), &length, sizeof length);
  return bytes + body;
}

inline sockaddr_un socket_address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path);
  return address;
}

class frame_client {
 public:
  /// Connects, or throws.
  explicit frame_client(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    const sockaddr_un address = socket_address(path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0)
      throw std::runtime_error("connect: " + std::string(std::strerror(errno)));
  }

  /// False when the server has closed the connection.
  bool send_bytes(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      if (!ready(POLLOUT)) throw std::runtime_error("the server does not read");
      const ssize_t part = ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
      if (part < 0 && errno == EAGAIN) continue;
      if (part <= 0) return false;
      sent += static_cast<std::size_t>(part);
    }
    return true;
  }
  bool send_frame(const std::string& body) { return send_bytes(frame(body)); }

  /// All that comes until the server closes the connection.
  std::string receive_all() {
    std::string all;
    char part[65536];
    for (;;) {
      if (!ready(POLLIN)) throw std::runtime_error("the server neither answers nor closes");
      const ssize_t got = ::recv(socket_.get(), part, sizeof part, MSG_DONTWAIT);
      if (got < 0 && errno == EAGAIN) continue;
      if (got <= 0) return all;
      all.append(part, static_cast<std::size_t>(got));
    }
  }

  /// The reply's body; none when the connection was closed without one whole frame.
  std::optional<std::string> receive_reply() {
    const std::string all = receive_all();
    const std::string body = all.size() < 4 ? "" : all.substr(4);
    if (all != frame(body)) return std::nullopt;
    return body;
  }

  std::optional<std::string> ask(const std::string& body) {
    send_frame(body);
    return receive_reply();
  }

  void stop_sending() { ::shutdown(socket_.get(), SHUT_WR); }
  int descriptor() const { return socket_.get(); }

 private:
  bool ready(short event) {
    pollfd entry{socket_.get(), event, 0};
    int count = 0;
    do {
      count = ::poll(&entry, 1, 20000);
    } while (count < 0 && errno == EINTR);  // the server's children may end meanwhile
    return count > 0;
  }

  muro::unique_fd socket_;
};

}  // namespace test
