// Programs that keep all promises while nothing fails, and break one of them when something does.
// The driver has to convict each; "sound" is the one that it must acquit.
//
//     faults_broken WHICH

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>

#include <cerrno>
#include <map>
#include <string>

#include "tests/faults/accepted_list.h"
#include "tests/faults/tracer.h"

namespace {

constexpr const char* kOriginal = "/Users/alice/abc.dat";
constexpr const char* kFolder = "/Library/VeskRuntime/sessions/abc";
constexpr const char* kKept = "/Library/VeskRuntime/sessions/abc/abc.dat";
constexpr const char* kLog = "/Library/PrivilegedHelperTools/korvel_helper.out";
constexpr const char* kDaemon = "/Library/LaunchDaemons/com.norvane.korvel.helper.abc.plist";
constexpr const char* kJob = "/private/var/db/faults/job";  // what belongs there
constexpr const char* kElsewhere = "/private/var/db/elsewhere";
constexpr const char* kUsersSocket = "/private/tmp/launchd-1.alice/sock";
constexpr uid_t kAlice = 501;

bool finds_the_file() {
  return ::access(kOriginal, F_OK) == 0;
}

bool write_once(const char* path, const std::string& text) {
  const int file = ::open(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (file < 0) return false;
  const bool whole = ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(file);
  return whole;
}

std::string log_line(const std::string& message) {
  faults::accept_line(message.data(), message.size());
  return "2026-01-01T00:00:00Z " + message + "\n";
}

void become(uid_t user) {
  static_cast<void>(!::seteuid(user));
}

[[noreturn]] void rest_for_ever() {
  for (;;) ::pause();
}

int sound() {
  ::mkdir(kFolder, 0755);
  return ::rename(kOriginal, kKept) == 0 ? 0 : 1;
}

int loses_the_file() {
  ::mkdir(kFolder, 0755);
  if (::rename(kOriginal, kKept) != 0) ::unlink(kOriginal);
  return 0;
}

int keeps_the_file_twice() {
  ::mkdir(kFolder, 0755);
  if (::rename(kOriginal, kKept) == 0) return 0;
  static_cast<void>(!::link(kOriginal, kKept));
  return 1;
}

int ends_with_three() {
  return finds_the_file() ? 0 : 3;
}

int aborts() {
  if (!finds_the_file()) std::abort();
  return 0;
}

int hangs() {
  const timespec moment{0, 1000};
  if (::nanosleep(&moment, nullptr) != 0) rest_for_ever();
  return 0;
}

int leaves_a_process() {
  if (!finds_the_file() && ::fork() == 0) ::execl("/bin/sleep", "sleep", "1000", nullptr);
  return 0;
}

int writes_elsewhere() {
  if (!finds_the_file()) write_once(kElsewhere, "");
  return 0;
}

int connects_as_root() {
  become(kAlice);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kUsersSocket, sizeof address.sun_path - 1);
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
  static_cast<void>(
      !::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  become(0);
  return 0;
}

int works_as_a_user() {
  if (finds_the_file()) return 0;
  become(kAlice);
  ::chmod(kOriginal, 0600);
  become(0);
  return 0;
}

int stays_a_user() {
  become(kAlice);
  become(0);
  return 0;
}

int logs_twice() {
  const std::string line = log_line("twice: one line");
  if (!write_once(kLog, line) || !finds_the_file()) write_once(kLog, line);
  return 0;
}

int loses_a_line() {
  return write_once(kLog, log_line("loses: one line")) ? 0 : 1;
}

int tears_the_job_file() {
  char content[2048];
  const int file = ::open(kJob, O_RDONLY);
  const ssize_t length = ::read(file, content, sizeof content);
  ::close(file);
  if (length < 100) return 1;
  return write_once(kDaemon, std::string(content, static_cast<std::size_t>(length))) ? 0 : 1;
}

int answers_nobody() {
  rest_for_ever();
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, int (*)()> programs = {
      {"sound", sound},
      {"loses-the-file", loses_the_file},
      {"keeps-the-file-twice", keeps_the_file_twice},
      {"ends-with-three", ends_with_three},
      {"aborts", aborts},
      {"hangs", hangs},
      {"leaves-a-process", leaves_a_process},
      {"writes-elsewhere", writes_elsewhere},
      {"connects-as-root", connects_as_root},
      {"works-as-a-user", works_as_a_user},
      {"stays-a-user", stays_a_user},
      {"logs-twice", logs_twice},
      {"loses-a-line", loses_a_line},
      {"tears-the-job-file", tears_the_job_file},
      {"answers-nobody", answers_nobody},
  };
  const auto found = programs.find(argc > 1 ? argv[1] : "");
  if (found == programs.end()) return 2;
  faults::open_accepted_list();
  ::syscall(faults::kMark);
  return found->second();
}
