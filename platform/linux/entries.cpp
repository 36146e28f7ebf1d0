#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/rename.h"

namespace platform {

int open_at(int folder, const char* name, int flags, mode_t mode) noexcept {
  return ::openat(folder, name, flags | O_CLOEXEC, mode);
}

int status_at(int folder, const char* name, struct stat& status, links which) noexcept {
  return ::fstatat(folder, name, &status, which == links::kept ? AT_SYMLINK_NOFOLLOW : 0);
}

int make_folder_at(int folder, const char* name, mode_t mode) noexcept {
  return ::mkdirat(folder, name, mode);
}

int remove_at(int folder, const char* name, entry_kind kind) noexcept {
  return ::unlinkat(folder, name, kind == entry_kind::folder ? AT_REMOVEDIR : 0);
}

DIR* open_stream(int folder) noexcept {
  descriptor number(open_at(folder, ".", O_RDONLY | O_DIRECTORY));
  DIR* const stream = number.is_open() ? ::fdopendir(number.get()) : nullptr;
  if (stream != nullptr) number.release();
  return stream;
}

namespace detail {

int native_rename_new(const char* from, int folder, const char* to) noexcept {
  // By number: the C library's own wrapper is newer than the systems this is built on.
  return static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, from, folder, to, RENAME_NOREPLACE));
}

int link_file(const char* from, int folder, const char* to) {
  return ::linkat(AT_FDCWD, from, folder, to, 0);
}

int rename_over(const char* from, int folder, const char* to) {
  return ::renameat(AT_FDCWD, from, folder, to);
}

}  // namespace detail
}  // namespace platform
