// Saves the coverage counters of processes that end without exit handlers. Linked into every
// program of the preset "coverage", and into no other: the linker's --wrap leads the calls here.
//
// The library of the counters writes them when a process ends by exit. A forked child that ends by
// _exit, _Exit, exec, a deadly signal to itself or an uncaught exception would take its own with it. Not
// wrapped is execv, which GoogleTest calls on a stack that is too small for the saving.

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
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

/// Some tests limit how much a process may write, or have used up its descriptors.
class lifted_limit {
 public:
  lifted_limit(int resource, rlim_t wanted) : resource_(resource) {
    ::getrlimit(resource_, &before_);
    const rlimit both{wanted, wanted};
    const rlimit own{before_.rlim_max, before_.rlim_max};
    if (::setrlimit(resource_, &both) != 0) ::setrlimit(resource_, &own);
  }
  ~lifted_limit() { ::setrlimit(resource_, &before_); }
  lifted_limit(const lifted_limit&) = delete;
  lifted_limit& operator=(const lifted_limit&) = delete;

 private:
  const int resource_;
  rlimit before_{};
};

/// Takes the standard descriptors that are closed: a file of counters would get the number, and
/// another thread's next line of output.
class held_descriptors {
 public:
  held_descriptors() {
    int number = ::open("/dev/null", O_RDWR);
    for (; number >= 0 && number <= STDERR_FILENO; number = ::open("/dev/null", O_RDWR))
      taken_[number] = true;
    ::close(number);
  }
  ~held_descriptors() {
    for (int number = 0; number <= STDERR_FILENO; ++number)
      if (taken_[number]) ::close(number);
  }
  held_descriptors(const held_descriptors&) = delete;
  held_descriptors& operator=(const held_descriptors&) = delete;

 private:
  bool taken_[STDERR_FILENO + 1] = {};
};

/// Not one line of standard error: the tests read it. A signal they notice.
void need(bool done) {
  if (!done) __real_abort();
}

/// The file that all of this process's counters end up in: for each object a line with its path, one
/// with the length, and that many bytes.
int g_pack = -1;

int move_into_pack(const char* path, const struct stat* info, int type, FTW*) {
  if (type == FTW_F) {
    const int file = ::open(path, O_RDONLY);
    const ssize_t size = info->st_size;
    need(::dprintf(g_pack, "%s\n%zd\n", path + strlen(KORVEL_PROFILE_FOLDER "/part-XXXXXX/"),
                   size) > 0);
    need(::sendfile(g_pack, file, nullptr, static_cast<size_t>(size)) == size);
    ::close(file);
  }
  ::remove(path);  // some tests forbid it to their own process
  return 0;
}

/// Writes the counters to a folder of this process's own, and then as one file: what another one
/// writes, and where another one is killed, cannot spoil them. The file has its last name only when
/// all is in it. It stands in the one place that a Mac root shows writable, and is everybody's:
/// processes of every user save, and whoever adds up takes it away.
void save_apart() {
  char folder[] = KORVEL_PROFILE_FOLDER "/part-XXXXXX";
  need(::mkdtemp(folder) != nullptr);
  need(::chmod(folder, 0777) == 0);
  ::setenv("GCOV_PREFIX", folder, 1);
  ::setenv("GCOV_PREFIX_STRIP", KORVEL_BUILD_DEPTH, 1);
  ::setenv("GCOV_ERROR_FILE", KORVEL_PROFILE_FOLDER "/errors.log", 1);
  __gcov_dump();
  if (::rmdir(folder) == 0) return;  // all had been saved before
  char pack[sizeof folder + 5];
  ::snprintf(pack, sizeof pack, "%s.pack", folder);
  g_pack = ::open(pack, O_WRONLY | O_CREAT | O_EXCL, 0666);
  need(g_pack >= 0 && ::nftw(folder, move_into_pack, 16, FTW_DEPTH | FTW_PHYS) == 0);
  need(::close(g_pack) == 0);
  char done[sizeof folder];
  ::strcpy(done, folder);
  ::memcpy(::strrchr(done, '/') + 1, "done", 4);
  need(::rename(pack, done) == 0);
}

void save() {
  const lifted_limit sizes(RLIMIT_FSIZE, RLIM_INFINITY);
  const lifted_limit descriptors(RLIMIT_NOFILE, 65536);
  const held_descriptors standard;
  char** const environment = environ;
  const mode_t mask = ::umask(0);
  save_apart();
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

[[noreturn]] void __wrap__Exit(int status) {
  __wrap__exit(status);
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
