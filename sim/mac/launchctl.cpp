// The stand-in for /bin/launchctl: hands its arguments to the simulated launchd, which knows the
// verbs, and does as it is told. An answer is a series of packets, told apart by their first byte:
//
//   o TEXT   print on standard output        e TEXT   print on standard error
//   n PATH   enter this bootstrap context (a namespace of the root stands for it)
//   x N      run the words from argument N on in this process's place
//   s N      end with status N

#include <fcntl.h>
#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/mac/wire.h"

namespace {

constexpr int kFailed = 1;

[[noreturn]] void end(int status) {
  std::fflush(stdout);
  ::_exit(status);
}

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "launchctl: %s: %s\n", what, std::strerror(errno));
  end(kFailed);
}

void enter_context(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || ::setns(fd, CLONE_NEWUTS) != 0) fail("cannot enter the bootstrap context");
  ::close(fd);
}

[[noreturn]] void obey(int socket, char** argv) {
  for (;;) {
    const std::string packet = mac::receive(socket);
    if (packet.empty()) break;
    const std::string text = packet.substr(1);
    if (packet[0] == 'o') std::fwrite(text.data(), 1, text.size(), stdout);
    if (packet[0] == 'e') std::fwrite(text.data(), 1, text.size(), stderr);
    if (packet[0] == 'n') enter_context(text);
    if (packet[0] == 's') end(std::atoi(text.c_str()));
    if (packet[0] == 'x') {
      char** words = argv + std::atoi(text.c_str());
      ::execvp(words[0], words);
      fail(words[0]);
    }
  }
  std::fputs("launchctl: launchd went away\n", stderr);
  end(kFailed);
}

}  // namespace

int main(int argc, char** argv) {
  const int socket =
      mac::send_to_launchd(R"({"op": "launchctl", "argv": )" + mac::quoted_list(argc, argv) + "}");
  if (socket < 0) {
    std::fputs("launchctl: no launchd answers\n", stderr);
    return kFailed;
  }
  obey(socket, argv);
}
