#include "sim/namespaces.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <fstream>
#include <optional>
#include <sstream>

#include "sim/posix_kit.h"

extern char** environ;

namespace macroot {
namespace {

constexpr int kNamespaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC;
/// The users of a simulated Mac all lie below this id.
constexpr unsigned long kLeastRange = 1000;

struct pipe_ends {
  unique_fd read;
  unique_fd write;
};

pipe_ends make_pipe() {
  int ends[2];
  check(::pipe2(ends, O_CLOEXEC), "pipe2");
  return {unique_fd(ends[0]), unique_fd(ends[1])};
}

/// The first range of subordinate ids that `file` gives the caller.
std::optional<std::pair<std::string, unsigned long>> subordinate_range(const char* file) {
  const passwd* entry = ::getpwuid(::getuid());
  const std::string name = entry == nullptr ? "" : entry->pw_name;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::string owner, first, count;
    std::getline(fields, owner, ':');
    std::getline(fields, first, ':');
    std::getline(fields, count);
    if (owner.empty() || (owner != name && owner != std::to_string(::getuid()))) continue;
    const unsigned long ids = std::strtoul(count.c_str(), nullptr, 10);
    if (ids >= kLeastRange) return {{first, std::min(ids, 65535UL)}};
  }
  return std::nullopt;
}

void write_text(const std::string& path, const std::string& text) {
  const unique_fd file(check(::open(path.c_str(), O_WRONLY | O_CLOEXEC), "open " + path));
  check(::write(file.get(), text.data(), text.size()), "write " + path);
}

/// Runs newuidmap or newgidmap; its own complaint is dropped, its failure is not.
void run_mapper(const std::string& program, pid_t pid, unsigned long own, const char* range_file) {
  const auto range = subordinate_range(range_file);
  if (!range) throw failure(std::string("no range for this user in ") + range_file);
  std::vector<std::string> words = {
      program,      std::to_string(pid),          "0", std::to_string(own), "1", "1",
      range->first, std::to_string(range->second)};
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t child = -1;
  const int error =
      ::posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw failure(program + ": " + std::strerror(error));
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (status != 0) throw failure(program + " refused the map");
}

void write_maps(pid_t pid, id_mode mode) {
  if (mode == id_mode::subuid) {
    run_mapper("newuidmap", pid, ::getuid(), "/etc/subuid");
    run_mapper("newgidmap", pid, ::getgid(), "/etc/subgid");
  } else if (mode == id_mode::single) {
    const std::string folder = "/proc/" + std::to_string(pid);
    write_text(folder + "/setgroups", "deny");
    write_text(folder + "/uid_map", "0 " + std::to_string(::geteuid()) + " 1");
    write_text(folder + "/gid_map", "0 " + std::to_string(::getegid()) + " 1");
  }
}

/// Ends this process when its parent is gone already: the parent holds the other end of `go`.
void end_without_parent(int go) {
  pollfd entry{go, POLLIN, 0};
  if (::poll(&entry, 1, 0) > 0 && (entry.revents & POLLHUP) != 0) ::_exit(1);
}

void become_root_inside(id_mode mode) {
  if (mode != id_mode::single) check(::setgroups(0, nullptr), "setgroups");
  check(::setresgid(0, 0, 0), "setresgid");
  check(::setresuid(0, 0, 0), "setresuid");
}

/// The new process, from its first line on. What it reports is empty when it is ready.
[[noreturn]] void run_first(const first_body& body, id_mode mode, int go, unique_fd report) {
  try {
    char released = 0;
    if (::read(go, &released, 1) != 1) ::_exit(1);
    become_root_inside(mode);
    // After the change of user, which clears it; then once more, whether the parent still lives.
    check(::prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
    end_without_parent(go);
    body(mode, [&report] {
      check(::write(report.get(), "", 1), "report");
      report.reset();
    });
  } catch (const std::exception& error) {
    [[maybe_unused]] const auto n = ::write(report.get(), error.what(), ::strlen(error.what()));
  }
  ::_exit(1);
}

std::string read_all(int fd) {
  std::string text;
  char buffer[512];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(got));
    if (text[0] == '\0') return text;  // ready: the other end may stay open for a while
  }
}

pid_t clone_process(int flags) {
  return static_cast<pid_t>(
      ::syscall(SYS_clone, flags | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

/// Waits until the process has reported; on anything but readiness ends it and throws.
void await_ready(pid_t pid, id_mode mode, int go, int report) {
  std::string answer;
  try {
    write_maps(pid, mode);
    check(::write(go, "", 1), "write");
    answer = read_all(report);
    if (!answer.empty() && answer[0] == '\0') return;
    if (answer.empty()) answer = "the first process ended without a word";
  } catch (const failure& error) {
    answer = error.what();
  }
  ::kill(pid, SIGKILL);
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  throw failure(answer);
}

first_process start_in(id_mode mode, const first_body& body) {
  pipe_ends go = make_pipe();
  pipe_ends report = make_pipe();
  const int user_namespace = mode == id_mode::plain ? 0 : CLONE_NEWUSER;
  const pid_t pid = check(clone_process(kNamespaces | user_namespace), "clone");
  if (pid == 0) {
    go.write.reset();
    report.read.reset();
    run_first(body, mode, go.read.get(), std::move(report.write));
  }
  go.read.reset();
  report.write.reset();
  await_ready(pid, mode, go.write.get(), report.read.get());
  return {pid, mode, std::move(go.write)};
}

}  // namespace

const char* name_of(id_mode mode) {
  if (mode == id_mode::plain) return "plain";
  return mode == id_mode::subuid ? "subuid" : "single";
}

first_process start_namespaced(const first_body& body) {
  std::string reasons;
  for (const id_mode mode : {id_mode::plain, id_mode::subuid, id_mode::single}) {
    if (mode == id_mode::plain && ::geteuid() != 0) {
      reasons = "plain: not root";
      continue;
    }
    try {
      return start_in(mode, body);
    } catch (const failure& error) {
      if (!reasons.empty()) reasons += "; ";
      reasons += std::string(name_of(mode)) + ": " + error.what();
    }
  }
  throw failure(reasons);
}

}  // namespace macroot
