#pragma once

/// The inner side of muro/sys/event_wait.h, for event_wait.cpp and its tests alone.

#include <poll.h>

namespace muro::detail {

/// poll(2); tests replace it to make it fail, while no other thread waits.
using poll_function = int (*)(pollfd* entries, nfds_t count, int timeout_ms);
extern constinit poll_function g_poll;

}  // namespace muro::detail
