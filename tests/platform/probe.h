#pragma once

/// Starts the probe with a real argument list and reads what it says.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace test {

class probe {
 public:
  using words = std::vector<std::string>;

  probe(const std::string& program, words arguments, words environment) {
    int pipe_ends[2];
    if (::pipe(pipe_ends) != 0) throw std::runtime_error("pipe");
    ::fcntl(pipe_ends[0], F_SETFD, FD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_addclose(&actions, pipe_ends[1]);
    arguments.insert(arguments.begin(), program);
    const int error = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr,
                                    pointers(arguments).data(), pointers(environment).data());
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_ends[1]);
    output_ = pipe_ends[0];
    if (error != 0) throw std::runtime_error("posix_spawn");
  }

  ~probe() {
    ::close(output_);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  probe(const probe&) = delete;
  probe& operator=(const probe&) = delete;

  pid_t pid() const { return pid_; }

  /// What is said up to and including the next line end, or up to the end of the output.
  std::string line() {
    std::string text;
    char c = 0;
    while (::read(output_, &c, 1) == 1) {
      text += c;
      if (c == '\n') break;
    }
    return text;
  }

  std::string rest() {
    std::string text;
    for (std::string more = line(); !more.empty(); more = line()) text += more;
    return text;
  }

  /// The status of `waitpid`.
  int wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

 private:
  static std::vector<char*> pointers(words& strings) {
    std::vector<char*> list;
    for (std::string& s : strings) list.push_back(s.data());
    list.push_back(nullptr);
    return list;
  }

  pid_t pid_ = -1;
  int output_ = -1;
};

}  // namespace test
