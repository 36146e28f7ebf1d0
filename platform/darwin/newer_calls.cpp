#include "platform/darwin/newer_calls.h"

#include <dlfcn.h>

#include <cstdio>

namespace platform::detail {
namespace {

template <class Function>
void look_up(Function& function, const char* name) noexcept {
  function = reinterpret_cast<Function>(::dlsym(RTLD_DEFAULT, name));
}

// On x86-64 the plain name of a call with a structure is that of the older call, whose structures have 32-bit file numbers.
template <class Function>
void look_up(Function& function, const char* name, const char* newer_name) noexcept {
  look_up(function, newer_name);
  if (function == nullptr) look_up(function, name);
}

}  // namespace

newer_calls look_up_calls() noexcept {
  newer_calls found{};
  look_up(found.openat, "openat");
  look_up(found.fstatat, "fstatat", "fstatat$INODE64");
  look_up(found.mkdirat, "mkdirat");
  look_up(found.unlinkat, "unlinkat");
  look_up(found.fdopendir, "fdopendir", "fdopendir$INODE64");
  look_up(found.linkat, "linkat");
  look_up(found.renameat, "renameat");
  look_up(found.renameatx_np, "renameatx_np");
  look_up(found.thread_fchdir, "pthread_fchdir_np", "__pthread_fchdir");
  return found;
}

newer_calls& calls() noexcept {
  static newer_calls found = look_up_calls();
  return found;
}

std::string path_of_folder(int folder, const std::string& path) {
  struct stat wanted;
  struct stat seen;
  if (::fstat(folder, &wanted) != 0) return path;
  char text[64];
  std::snprintf(text, sizeof text, "/.vol/%lld/%llu", static_cast<long long>(wanted.st_dev),
                static_cast<unsigned long long>(wanted.st_ino));
  const bool is_same =
      ::stat(text, &seen) == 0 && seen.st_dev == wanted.st_dev && seen.st_ino == wanted.st_ino;
  return is_same ? text : path;
}

}  // namespace platform::detail
