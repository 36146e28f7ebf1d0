// A client for a traced helper: sends each request on a connection of its own and prints one word a
// line: "answered", "dropped" (the connection closed without a whole answer), "silent" (none within
// the limit) or "refused" (nothing listens).
//
// After a silence the rest is not asked for; where the last answer is missing, the last request is
// made once more.
//
//     faults_client SECONDS SOCKET (COMMAND ARGUMENT)...

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The endpoint may be about to open.
constexpr int kAttempts = 20;
constexpr int kBetween_us = 5000;

// A string field: the bytes, their number in little-endian order, the number's size.
std::string field(const std::string& text) {
  std::string number;
  for (std::size_t rest = text.size(); rest != 0; rest >>= 8)
    number += static_cast<char>(rest & 0xff);
  return text + number + static_cast<char>(number.size());
}

std::string frame(const std::string& body) {
  std::string length;
  for (int shift = 0; shift < 32; shift += 8)
    length += static_cast<char>((body.size() >> shift) & 0xff);
  return length + body;
}

const char* talk(int descriptor, const std::string& request) {
  if (::send(descriptor, request.data(), request.size(), MSG_NOSIGNAL) < 0) return "dropped";
  char answer[4];
  const ssize_t got = ::recv(descriptor, answer, sizeof answer, MSG_WAITALL);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return "silent";
  return got == 4 && std::memcmp(answer, "\0\0\0\0", 4) == 0 ? "answered" : "dropped";
}

bool connected(int descriptor, const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      return true;
    ::usleep(kBetween_us);
  }
  return false;
}

std::string ask(const char* path, const std::string& request, int limit_s) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
  const timeval limit{limit_s, 0};
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const std::string result = connected(descriptor, path) ? talk(descriptor, request) : "refused";
  ::close(descriptor);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  bool again = true;
  for (int i = 3; i + 1 < argc; i += 2) {
    const std::string body = field(argv[i + 1]) + field(argv[i]);
    const std::string result = ask(argv[2], frame(body), std::atoi(argv[1]));
    std::printf("%s\n", result.c_str());
    std::fflush(stdout);
    if (result == "silent") return 0;
    if (i + 3 < argc || result == "answered" || !again) continue;
    again = false;
    i -= 2;
  }
}
