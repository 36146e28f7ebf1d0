#include "muro/sys/event_wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "muro/core/exception.h"
#include "muro/sys/event_wait_internal.h"
#include "muro/sys/time.h"

namespace muro {

constinit detail::poll_function detail::g_poll = ::poll;

namespace {

// Deliberate: the product is taken in 32 bits and may wrap; what wraps to a negative number waits
// for ever. Every negative number becomes -1, because poll on macOS refuses those below it.
int poll_milliseconds(long timeout_s) {
  const std::uint32_t product = static_cast<std::uint32_t>(timeout_s) * 1000u;
  return std::max(static_cast<std::int32_t>(product), std::int32_t{-1});
}

short requested_events(const bool* readable, const bool* writable) {
  return static_cast<short>((readable != nullptr ? POLLIN : 0) |
                            (writable != nullptr ? POLLOUT : 0));
}

// poll, repeated on EINTR with the time that is left: a storm of signals must not prolong the wait.
int poll_until(pollfd& entry, int timeout_ms) {
  const time_limit limit(timeout_ms);
  int result = detail::g_poll(&entry, 1, timeout_ms);
  while (result < 0 && errno == EINTR) {
    if (timeout_ms > 0) timeout_ms = static_cast<int>(limit.left_ms());
    result = detail::g_poll(&entry, 1, timeout_ms);
  }
  return result;
}

}  // namespace

void wait_for_event(int descriptor, bool* readable, bool* writable, bool* error, long timeout_s) {
  pollfd entry{descriptor, requested_events(readable, writable), 0};
  if (poll_until(entry, poll_milliseconds(timeout_s)) < 0)
    throw exception::system_error("wait_for_event", "poll");
  if (readable != nullptr) *readable = (entry.revents & (POLLIN | POLLHUP)) != 0;
  if (writable != nullptr) *writable = (entry.revents & POLLOUT) != 0;
  if (error != nullptr) *error = (entry.revents & (POLLERR | POLLNVAL)) != 0;
}

}  // namespace muro
