#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/clock.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"

namespace platform {

// A process's descriptor is readable once the process has ended, and is close-on-exec from the start
// (pidfd_open(2)). By number: the C library's own wrapper is newer than the systems this is built on.
bool await_process_end(pid_t pid, int limit_ms) noexcept {
  const descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!process.is_open()) return false;
  const long long end_us = monotonic_us() + limit_ms * 1000LL;
  pollfd entry{process.get(), POLLIN, 0};
  while (::poll(&entry, 1, limit_ms) == -1 && errno == EINTR)
    limit_ms = static_cast<int>(std::max((end_us - monotonic_us() + 999) / 1000, 0LL));
  return true;
}

}  // namespace platform
