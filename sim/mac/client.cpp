// The stand-in for the client application: writes down how it was started, as one line of JSON at
// the end of /var/log/korvel-client.jsonl and as a message to the simulated launchd if there is
// one, then stays until SIGTERM.

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/mac/wire.h"

namespace {

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "null" : mac::quoted(value);
}

/// The value of the option `name`, or null.
const char* option(int argc, char** argv, const char* name) {
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
  return nullptr;
}

/// The file's content as JSON, null when it cannot be read.
std::string content(const char* path) {
  const int fd = path == nullptr ? -1 : ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "null";
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0 && text.size() < 65536;)
    text.append(buffer, static_cast<std::size_t>(n));
  ::close(fd);
  return mac::quoted(text);
}

std::string record(int argc, char** argv) {
  const char* restore = option(argc, argv, "--connect-restore");
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  char time[32];
  std::snprintf(time, sizeof time, "%lld.%06ld", static_cast<long long>(now.tv_sec),
                now.tv_nsec / 1000);
  return std::string("{\"time\": ") + time + ", \"pid\": " + std::to_string(::getpid()) +
         ", \"uid\": " + std::to_string(::getuid()) + ", \"gid\": " + std::to_string(::getgid()) +
         ", \"argv\": " + mac::quoted_list(argc, argv) +
         ", \"session\": " + variable("XDG_SESSION_ID") +
         ", \"session_type\": " + variable("XDG_SESSION_TYPE") + ", \"home\": " + variable("HOME") +
         ", \"user\": " + variable("USER") +
         ", \"restore_file\": " + (restore == nullptr ? "null" : mac::quoted(restore)) +
         ", \"restore_exists\": " +
         (restore != nullptr && ::access(restore, F_OK) == 0 ? "true" : "false") +
         ", \"restore_content\": " + content(restore) + "}";
}

void append(const std::string& line) {
  const int fd =
      ::open("/var/log/korvel-client.jsonl", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0 || ::write(fd, line.data(), line.size()) < 0) std::perror("korvel");
  ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  sigset_t term;
  ::sigemptyset(&term);
  ::sigaddset(&term, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &term, nullptr);
  const std::string line = record(argc, argv);
  append(line + "\n");
  ::close(mac::send_to_launchd("{\"op\": \"client\", \"record\": " + line + "}"));
  int signal = 0;
  ::sigwait(&term, &signal);
  return 0;
}
