/// The exclusive rename, with the ways around it for a system or a file system that has none.

#include "platform/posix/rename.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/platform.h"

namespace platform {
namespace {

bool is_unknown(int error) {
  return error == ENOSYS || error == EINVAL || error == ENOTSUP || error == EOPNOTSUPP;
}

// Some file systems know no second name at all, and EMLINK says that this file may have none more.
bool allows_no_link(int error) {
  return is_unknown(error) || error == EPERM || error == EMLINK;
}

// Between the look and the rename a target could still appear; nothing better is left.
int rename_if_free(const char* from, int folder, const char* to) {
  struct stat status;
  if (status_at(folder, to, status, links::kept) == 0) {
    errno = EEXIST;
    return -1;
  }
  return errno == ENOENT ? detail::rename_over(from, folder, to) : -1;
}

// For an instant the file has both names, and a process that is killed then leaves both; but
// nothing that appears at the target is lost.
int link_and_unlink(const char* from, int folder, const char* to) {
  if (detail::link_file(from, folder, to) != 0) return -1;
  if (::unlink(from) == 0) return 0;
  const int error = errno;
  remove_at(folder, to, entry_kind::file);
  errno = error;
  return -1;
}

}  // namespace

int rename_new(const char* from, int folder, const char* to) {
  if (detail::native_rename_new(from, folder, to) == 0) return 0;
  if (!is_unknown(errno)) return -1;
  struct stat status;
  if (::lstat(from, &status) != 0) return -1;
  if (S_ISREG(status.st_mode)) {
    if (link_and_unlink(from, folder, to) == 0) return 0;
    if (!allows_no_link(errno)) return -1;
  }
  return rename_if_free(from, folder, to);
}

}  // namespace platform
