/// Closing descriptors in the child between fork and exec.

#include <libproc.h>
#include <unistd.h>

#include <algorithm>

#include "platform/platform.h"

namespace platform {

namespace {

/// 8 KiB of the stack; a helper has a dozen descriptors open.
constexpr int kListed = 1024;
using descriptor_list = proc_fdinfo[kListed];

/// Fills in the descriptors that are open and gives their count; -1 when the kernel does not tell,
/// or may have more than fit. One plain system call (proc_pidinfo in <libproc.h>).
int list_open(descriptor_list& list) noexcept {
  const int size = sizeof list;
  const int filled = ::proc_pidinfo(::getpid(), PROC_PIDLISTFDS, 0, list, size);
  return filled > 0 && filled < size ? filled / static_cast<int>(sizeof list[0]) : -1;
}

}  // namespace

void close_descriptors(int first, int last) noexcept {
  descriptor_list list;
  const int open = list_open(list);
  for (int i = 0; i < open; ++i)
    if (list[i].proc_fd >= first && list[i].proc_fd <= last) ::close(list[i].proc_fd);
  if (open >= 0) return;
  for (int fd = std::min(last, ::getdtablesize() - 1); fd >= first; --fd) ::close(fd);
}

}  // namespace platform
