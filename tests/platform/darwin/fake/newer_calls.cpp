// What `dlsym` finds on the fake Mac: the folder calls with macOS's flags, the exclusive rename, and
// a thread's own working folder. Names in `failing` are not found.

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>

#include "tests/platform/darwin/fake/mac.h"

namespace {

using any_call = void (*)();

/// A flag of macOS as Linux has it; any other is refused.
bool translate(int& flags, int of_mac, int of_linux) {
  if (flags != 0 && flags != of_mac) {
    errno = EINVAL;
    return false;
  }
  flags = flags == 0 ? 0 : of_linux;
  return true;
}

int mac_fstatat(int folder, const char* name, struct stat* status, int flags) {
  return translate(flags, 0x20, AT_SYMLINK_NOFOLLOW) ? ::fstatat(folder, name, status, flags) : -1;
}

int mac_unlinkat(int folder, const char* name, int flags) {
  return translate(flags, 0x80, AT_REMOVEDIR) ? ::unlinkat(folder, name, flags) : -1;
}

int mac_renameatx_np(int from_folder, const char* from, int to_folder, const char* to,
                     unsigned flags) {
  fake::world().calls.push_back("renameatx_np " + std::to_string(flags));
  return static_cast<int>(
      ::syscall(SYS_renameat2, from_folder, from, to_folder, to, RENAME_NOREPLACE));
}

// A thread of Linux has a working folder of its own once it shares none. Where it comes back to is
// the one that it was in before, as that is what the process's tests mean by theirs.
int mac_thread_fchdir(int folder) {
  thread_local int home = -1;
  if (folder >= 0) {
    if (home < 0 && ::unshare(CLONE_FS) == 0) home = ::open(".", O_PATH | O_CLOEXEC);
    return ::fchdir(folder);
  }
  const int result = ::fchdir(home);
  ::close(home);
  home = -1;
  return result;
}

// The older forms are for structures that this program is not compiled with.
int wrong_structures() {
  errno = EOVERFLOW;
  return -1;
}

template <class Call>
any_call any(Call call) {
  return reinterpret_cast<any_call>(call);
}

}  // namespace

extern "C" void* mac_dlsym(void*, const char* name) noexcept;

extern "C" void* mac_dlsym(void*, const char* name) noexcept {
  static const std::map<std::string, any_call> calls = {
      {"openat", any(&::openat)},
      {"fstatat$INODE64", any(&mac_fstatat)},
      {"fstatat", any(&wrong_structures)},
      {"mkdirat", any(&::mkdirat)},
      {"unlinkat", any(&mac_unlinkat)},
      {"fdopendir$INODE64", any(&::fdopendir)},
      {"fdopendir", any(&wrong_structures)},
      {"linkat", any(&::linkat)},
      {"renameat", any(&::renameat)},
      {"renameatx_np", any(&mac_renameatx_np)},
      {"__pthread_fchdir", any(&mac_thread_fchdir)},
  };
  const auto found = calls.find(name);
  if (found == calls.end() || fake::world().failing.count(name) != 0) return nullptr;
  return reinterpret_cast<void*>(found->second);
}
