#include "sim/first_process.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdio>

#include "sim/posix_kit.h"

namespace macroot {
namespace {

sigset_t watched_signals() {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGCHLD);
  for (const int signal : kPassedSignals) ::sigaddset(&set, signal);
  return set;
}

/// The limit that launchd gives its jobs; it can be raised again.
void limit_open_files() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  if (limit.rlim_max < 256) return;
  limit.rlim_cur = 256;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Reaps every ended child; gives true, with `status`, once `main` is among them.
bool reap(pid_t main, int& status) {
  bool ended = false;
  for (;;) {
    int one = 0;
    const pid_t pid = ::waitpid(-1, &one, WNOHANG);
    if (pid <= 0) return ended;
    if (pid != main) continue;
    ended = true;
    status = WIFSIGNALED(one) ? 128 + WTERMSIG(one) : WEXITSTATUS(one);
  }
}

std::vector<std::string> environment(const run_options& options, const std::string& mode) {
  std::vector<std::string> all = {"PATH=/usr/bin:/bin:/usr/sbin:/sbin", "KORVEL_MACROOT=" + mode};
  all.insert(all.end(), options.variables.begin(), options.variables.end());
  return all;
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> result;
  for (std::string& word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

void run_command(const run_options& options, const std::string& mode) {
  limit_open_files();
  std::vector<std::string> words = options.command;
  std::vector<std::string> variables = environment(options, mode);
  const char* path = ::strchr(variables[0].c_str(), '=') + 1;
  const bool in_folder = ::chdir(options.work_folder.c_str()) == 0;
  if (in_folder) {
    ::setenv("PATH", path, 1);
    ::execvpe(words[0].c_str(), pointers(words).data(), pointers(variables).data());
  }
  const int error = errno;
  std::fprintf(stderr, "macroot-run: cannot run %s: %s\n",
               (in_folder ? words[0] : options.work_folder).c_str(), std::strerror(error));
  ::_exit(127);
}

void run_as_init(const run_options& options, const std::string& mode) {
  const sigset_t watched = watched_signals();
  sigset_t before;
  ::sigprocmask(SIG_BLOCK, &watched, &before);
  const pid_t main = check(::fork(), "fork");
  if (main == 0) {
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    run_command(options, mode);
  }
  for (int status = 0;;) {
    siginfo_t info{};
    if (::sigwaitinfo(&watched, &info) < 0) continue;
    if (info.si_signo != SIGCHLD) {
      if (info.si_code != SI_KERNEL) ::kill(main, info.si_signo);
    } else if (reap(main, status)) {
      ::_exit(status);
    }
  }
}

}  // namespace macroot
