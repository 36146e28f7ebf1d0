#include "sim/mac/wire.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace mac {

std::string quoted(const std::string& bytes) {
  std::string result = "\"";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04x", byte);
    const bool plain = byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\';
    result += plain ? std::string(1, c) : escape;
  }
  return result + "\"";
}

std::string quoted_list(int count, char** words) {
  std::string list = "[";
  for (int i = 0; i < count; ++i) list += (i == 0 ? "" : ", ") + quoted(words[i]);
  return list + "]";
}

int send_to_launchd(const std::string& message) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/var/run/macroot.sock");
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, message.data(), message.size(), MSG_NOSIGNAL) >= 0)
    return fd;
  ::close(fd);
  return -1;
}

std::string receive(int socket) {
  std::string packet(1 << 20, '\0');
  const ssize_t got = ::recv(socket, packet.data(), packet.size(), 0);
  packet.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return packet;
}

}  // namespace mac
