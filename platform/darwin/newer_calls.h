#pragma once

/// The calls of macOS that came after the lowest supported release, looked up at run time.

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace platform::detail {

/// Null where the running system lacks the call. Sources: the manual pages open(2), stat(2),
/// mkdir(2), unlink(2), fdopendir(3), link(2), rename(2) of macOS and its <stdio.h>.
struct newer_calls {
  // From 10.10 on; all of them or none.
  int (*openat)(int, const char*, int, ...);
  int (*fstatat)(int, const char*, struct stat*, int);
  int (*mkdirat)(int, const char*, mode_t);
  int (*unlinkat)(int, const char*, int);
  DIR* (*fdopendir)(int);
  int (*linkat)(int, const char*, int, const char*, int);
  int (*renameat)(int, const char*, int, const char*);
  // From 10.12 on.
  int (*renameatx_np)(int, const char*, int, const char*, unsigned);
  // Gives the calling thread alone a working folder, and takes it away again for -1. System call
  // 349 since 10.5 (<sys/syscall.h>); called pthread_fchdir_np in the headers from 10.12 on.
  int (*thread_fchdir)(int);

  bool has_folder_calls() const {
    return openat && fstatat && mkdirat && unlinkat && fdopendir && linkat && renameat;
  }
};

/// What the running system has.
newer_calls look_up_calls() noexcept;

/// What is used: `look_up_calls`, asked once. A test may put less into it.
newer_calls& calls() noexcept;

/// A path for callers that take nothing but paths: "/.vol/DEVICE/INODE" where the system shows this
/// very folder there, as it does on its own volumes; the folder stays the same one, whoever renames
/// what. Else `path`.
std::string path_of_folder(int folder, const std::string& path);

}  // namespace platform::detail
