#include "tests/faults/call_names.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>

#include <cerrno>
#include <map>
#include <set>

namespace faults {
namespace {

struct call {
  const char* name;
  int path = -1;
  int count = -1;
  bool changes = false;
};

// Named alone: a call of no path, no count and no change.
#define PLAIN(name) \
  {                 \
    SYS_##name, {   \
#name         \
    }               \
  }
#define WITH(name, path, count, changes) \
  {                                      \
    SYS_##name, {                        \
#name, path, count, changes        \
    }                                    \
  }

const std::map<std::uint64_t, call>& calls() {
  static const auto* const table = new std::map<std::uint64_t, call>{
      PLAIN(mmap),
      PLAIN(munmap),
      PLAIN(mprotect),
      PLAIN(mremap),
      PLAIN(madvise),
      PLAIN(brk),
      PLAIN(close),
      PLAIN(close_range),
      PLAIN(pidfd_open),
      PLAIN(dup),
      PLAIN(dup2),
      PLAIN(dup3),
      PLAIN(fcntl),
      PLAIN(ioctl),
      PLAIN(pipe),
      PLAIN(pipe2),
      PLAIN(poll),
      PLAIN(ppoll),

      PLAIN(fstat),
      PLAIN(lseek),
      PLAIN(getdents64),
      PLAIN(clone),
      PLAIN(clone3),
      PLAIN(fork),
      PLAIN(vfork),
      PLAIN(wait4),
      PLAIN(waitid),
      PLAIN(kill),
      PLAIN(tgkill),
      PLAIN(exit),
      PLAIN(exit_group),
      PLAIN(rt_sigaction),
      PLAIN(rt_sigprocmask),
      PLAIN(rt_sigreturn),
      PLAIN(rt_sigtimedwait),
      PLAIN(rt_sigsuspend),
      PLAIN(pause),
      PLAIN(sigaltstack),
      PLAIN(nanosleep),
      PLAIN(clock_nanosleep),
      PLAIN(clock_gettime),
      PLAIN(gettimeofday),
      PLAIN(times),
      PLAIN(time),
      PLAIN(alarm),
      PLAIN(getpid),
      PLAIN(gettid),
      PLAIN(getppid),
      PLAIN(getuid),
      PLAIN(geteuid),
      PLAIN(getgid),
      PLAIN(getegid),
      PLAIN(setsid),
      PLAIN(getsid),
      PLAIN(setpgid),
      PLAIN(setuid),
      PLAIN(setreuid),
      PLAIN(setresuid),
      PLAIN(umask),
      PLAIN(prlimit64),
      PLAIN(getrlimit),
      PLAIN(setrlimit),
      PLAIN(sysinfo),
      PLAIN(uname),
      PLAIN(getcwd),
      PLAIN(fsync),
      PLAIN(fdatasync),
      PLAIN(sched_yield),
      PLAIN(sched_getaffinity),
      PLAIN(set_robust_list),
      PLAIN(rseq),
      PLAIN(prctl),
      PLAIN(arch_prctl),
      PLAIN(socket),
      PLAIN(socketpair),
      PLAIN(listen),
      PLAIN(accept),
      PLAIN(accept4),
      PLAIN(shutdown),
      PLAIN(getsockname),
      PLAIN(getpeername),
      PLAIN(setsockopt),
      PLAIN(getsockopt),
      PLAIN(flock),
      PLAIN(fadvise64),
      PLAIN(fstatfs),
      PLAIN(restart_syscall),
      WITH(read, -1, 2, false),
      WITH(pread64, -1, 2, false),
      WITH(readv, -1, -1, false),
      WITH(write, -1, 2, false),
      WITH(pwrite64, -1, 2, false),
      WITH(writev, -1, -1, false),
      WITH(sendto, -1, 2, false),
      WITH(recvfrom, -1, 2, false),
      WITH(sendmsg, -1, 1, false),
      WITH(recvmsg, -1, 1, false),
      WITH(sendfile, -1, 3, false),
      WITH(copy_file_range, -1, 4, false),
      WITH(getrandom, -1, 1, false),
      WITH(connect, 1, -1, false),
      WITH(bind, 1, -1, true),
      WITH(open, 0, -1, false),
      WITH(openat, 1, -1, false),
      WITH(creat, 0, -1, true),
      WITH(stat, 0, -1, false),
      WITH(lstat, 0, -1, false),
      WITH(newfstatat, 1, -1, false),
      WITH(statx, 1, -1, false),
      WITH(access, 0, -1, false),
      WITH(faccessat, 1, -1, false),
      WITH(faccessat2, 1, -1, false),
      WITH(readlink, 0, -1, false),
      WITH(readlinkat, 1, -1, false),
      WITH(statfs, 0, -1, false),
      WITH(chdir, 0, -1, false),
      WITH(fchdir, -1, -1, false),
      WITH(execve, 0, -1, false),
      WITH(execveat, 1, -1, false),
      WITH(rename, 0, -1, true),
      WITH(renameat, 1, -1, true),
      WITH(renameat2, 1, -1, true),
      WITH(unlink, 0, -1, true),
      WITH(unlinkat, 1, -1, true),
      WITH(rmdir, 0, -1, true),
      WITH(mkdir, 0, -1, true),
      WITH(mkdirat, 1, -1, true),
      WITH(link, 0, -1, true),
      WITH(linkat, 1, -1, true),
      WITH(symlink, 1, -1, true),
      WITH(symlinkat, 2, -1, true),
      WITH(chmod, 0, -1, true),
      WITH(fchmod, -1, -1, true),
      WITH(fchmodat, 1, -1, true),
      WITH(chown, 0, -1, true),
      WITH(lchown, 0, -1, true),
      WITH(fchown, -1, -1, true),
      WITH(fchownat, 1, -1, true),
      WITH(truncate, 0, -1, true),
      WITH(ftruncate, -1, -1, true),
      WITH(utimensat, 1, -1, true),
      WITH(mknod, 0, -1, true),
      WITH(mknodat, 1, -1, true),
  };
  return *table;
}

const call* find(const std::string& name) {
  static const auto* const by_name = [] {
    auto* const made = new std::map<std::string, const call*>;
    for (const auto& [number, entry] : calls()) (*made)[entry.name] = &entry;
    return made;
  }();
  const auto found = by_name->find(name);
  return found == by_name->end() ? nullptr : found->second;
}

}  // namespace

std::string call_name(std::uint64_t number, std::uint64_t second) {
  if (number == SYS_futex) {
    const std::uint64_t operation = second & FUTEX_CMD_MASK;
    const bool waits = operation == FUTEX_WAIT || operation == FUTEX_WAIT_BITSET;
    return waits ? "futex_wait" : "futex_wake";
  }
  const auto found = calls().find(number);
  return found == calls().end() ? std::to_string(number) : found->second.name;
}

bool changes_files(const std::string& name, const std::uint64_t (&arguments)[6]) {
  if (name == "open" || name == "openat")
    return (arguments[name == "open" ? 1 : 2] & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
  const call* const entry = find(name);
  return entry != nullptr && entry->changes;
}

int path_argument(const std::string& name) {
  const call* const entry = find(name);
  return entry == nullptr ? -1 : entry->path;
}

int count_argument(const std::string& name) {
  const call* const entry = find(name);
  return entry == nullptr ? -1 : entry->count;
}

bool is_about_descriptor(const std::string& name) {
  static const auto* const names = new std::set<std::string>{
      "read", "write", "close", "fstat", "lseek", "getdents64", "fchmod", "fchown", "ftruncate"};
  return names->count(name) != 0;
}

#define ERROR(name) \
  { #name, name }

int error_number(const std::string& name) {
  static const auto* const numbers = new std::map<std::string, int>{
      ERROR(ENOSPC),     ERROR(EIO),        ERROR(EMFILE),       ERROR(ENFILE),
      ERROR(EINTR),      ERROR(EAGAIN),     ERROR(EACCES),       ERROR(ENOENT),
      ERROR(ENOMEM),     ERROR(EPERM),      ERROR(ECHILD),       ERROR(EEXIST),
      ERROR(EXDEV),      ERROR(EBADF),      ERROR(ENOTDIR),      ERROR(EROFS),
      ERROR(EPIPE),      ERROR(ECONNRESET), ERROR(ECONNREFUSED), ERROR(ECONNABORTED),
      ERROR(EADDRINUSE), ERROR(ENOBUFS),    ERROR(ELOOP),        ERROR(ESRCH),
      ERROR(ENOSYS),     ERROR(EINVAL),     ERROR(EBUSY),        ERROR(ENOTEMPTY),
      ERROR(EDQUOT),     ERROR(EFBIG)};
  const auto found = numbers->find(name);
  return found == numbers->end() ? 0 : found->second;
}

}  // namespace faults
