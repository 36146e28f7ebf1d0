/// Closing descriptors in the child between fork and exec.

#include <unistd.h>

#include <algorithm>

#include "platform/platform.h"

namespace platform {

// There is no call that closes a range; the table is small here (getdtablesize(2)).
void close_descriptors(int first, int last) noexcept {
  for (int fd = std::min(last, ::getdtablesize() - 1); fd >= first; --fd) ::close(fd);
}

}  // namespace platform
