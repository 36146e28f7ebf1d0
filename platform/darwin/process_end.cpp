#include <sys/event.h>

#include <algorithm>
#include <cerrno>

#include "platform/clock.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"

namespace platform {
namespace {

timespec after(long long us) noexcept {
  const long long left_us = std::max(us, 0LL);
  return {static_cast<time_t>(left_us / 1000000), static_cast<long>(left_us % 1000000 * 1000)};
}

}  // namespace

// The queue is not inherited by a child (kqueue(2)). A process that has ended already has no more
// events: it is as if it were not there.
bool await_process_end(pid_t pid, int limit_ms) noexcept {
  const descriptor queue(::kqueue());
  if (!queue.is_open()) return false;
  struct kevent event;
  EV_SET(&event, static_cast<uintptr_t>(pid), EVFILT_PROC, EV_ADD, NOTE_EXIT, 0, nullptr);
  if (::kevent(queue.get(), &event, 1, nullptr, 0, nullptr) == -1) return errno == ESRCH;
  const long long end_us = monotonic_us() + limit_ms * 1000LL;
  timespec left = after(limit_ms * 1000LL);
  while (::kevent(queue.get(), nullptr, 0, &event, 1, &left) == -1 && errno == EINTR)
    left = after(end_us - monotonic_us());
  return true;
}

}  // namespace platform
