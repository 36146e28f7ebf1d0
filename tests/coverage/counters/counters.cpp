// Saves the coverage counters of processes that end without exit handlers. Linked into every
// program of the preset "coverage", and into no other: the linker's --wrap leads the calls here.
//
// The library of the counters writes them when a process ends by exit. A forked child that ends by
// _exit, exec, a deadly signal to itself or an uncaught exception would take its own with it. Not
// wrapped is execv, which GoogleTest calls on a stack that is too small for the saving.

#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>

extern "C" {
void __gcov_dump();
void __gcov_reset();
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __real_abort();
int __real_kill(pid_t pid, int signal);
int __real_execvp(const char* file, char* const argv[]);
int __real_execve(const char* path, char* const argv[], char* const envp[]);
}

namespace {

std::terminate_handler g_terminate = nullptr;

/// Some tests limit how much a process may write; a half-written file of counters is worse than none.
class no_file_limit {
 public:
  no_file_limit() {
    const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
    ::getrlimit(RLIMIT_FSIZE, &before_);
    ::setrlimit(RLIMIT_FSIZE, &none);
  }
  ~no_file_limit() { ::setrlimit(RLIMIT_FSIZE, &before_); }
  no_file_limit(const no_file_limit&) = delete;
  no_file_limit& operator=(const no_file_limit&) = delete;

 private:
  rlimit before_{};
};

/// Writes the counters below the one folder that a Mac root shows writable, as files that the
/// processes of every user may add to. What the library complains about goes to a file there: the
/// tests read standard error.
void save() {
  const no_file_limit unlimited;
  char** const environment = environ;
  const mode_t mask = ::umask(0);
  ::setenv("GCOV_PREFIX", KORVEL_PROFILE_FOLDER, 1);
  ::setenv("GCOV_ERROR_FILE", KORVEL_PROFILE_FOLDER "/errors.log", 1);
  __gcov_dump();
  ::umask(mask);
  environ = environment;
}

/// Where an exec comes back, counting goes on from nothing: what was counted has been saved.
int came_back(int result) {
  __gcov_reset();
  return result;
}

[[noreturn]] void terminated() {
  save();
  g_terminate();
  __real_abort();
}

__attribute__((constructor)) void watch_for_uncaught_exceptions() {
  g_terminate = std::set_terminate(terminated);
}

/// Right before the library's own, which then finds nothing left to do.
__attribute__((destructor(101))) void save_at_exit() {
  save();
}

}  // namespace

extern "C" {

[[noreturn]] void __wrap__exit(int status) {
  save();
  __real__exit(status);
}

[[noreturn]] void __wrap_abort() {
  save();
  __real_abort();
}

int __wrap_kill(pid_t pid, int signal) {
  if (pid == ::getpid() && signal == SIGKILL) save();
  return __real_kill(pid, signal);
}

int __wrap_execvp(const char* file, char* const argv[]) {
  save();
  return came_back(__real_execvp(file, argv));
}

int __wrap_execve(const char* path, char* const argv[], char* const envp[]) {
  save();
  return came_back(__real_execve(path, argv, envp));
}
}
