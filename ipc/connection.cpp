#include "ipc/connection.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

namespace ipc_priv {
namespace {

// A client that has gone must not end the process by SIGPIPE, also where nobody ignores it. The
// flag is the one system's way and the socket option the other's.
#ifdef MSG_NOSIGNAL
constexpr int kNoSignal = MSG_NOSIGNAL;
#else
constexpr int kNoSignal = 0;
#endif

void refuse_sigpipe([[maybe_unused]] int descriptor) {
#ifdef SO_NOSIGPIPE
  const int on = 1;
  ::setsockopt(descriptor, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
}

int poll_limit(long long left_ms) {
  return static_cast<int>(std::min<long long>(left_ms, std::numeric_limits<int>::max()));
}

bool would_block() {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

}  // namespace

connection::connection(muro::unique_fd descriptor, int stop, long long limit_ms)
    : descriptor_(std::move(descriptor)), stop_(stop), limit_ms_(limit_ms) {
  int blocking = 0;
  ::ioctl(descriptor_.get(), FIONBIO, &blocking);
  refuse_sigpipe(descriptor_.get());
}

void connection::begin_transfer() {
  limit_ = muro::time_limit(limit_ms_);
}

// What is there already is taken without asking poll. Once a piece was short, more has to come
// first.
bool connection::read(unsigned char* bytes, int length) {
  bool may_be_there = true;
  while (length > 0) {
    if (!may_be_there && !wait_for(POLLIN)) return false;
    const ssize_t got =
        ::recv(descriptor_.get(), bytes, static_cast<std::size_t>(length), MSG_DONTWAIT);
    may_be_there = false;
    if (got < 0 && would_block()) continue;
    if (got <= 0) return false;
    bytes += got;
    length -= static_cast<int>(got);
  }
  return true;
}

bool connection::write(const unsigned char* bytes, int length) {
  bool may_have_room = true;
  while (length > 0) {
    if (!may_have_room && !wait_for(POLLOUT)) return false;
    const ssize_t sent = ::send(descriptor_.get(), bytes, static_cast<std::size_t>(length),
                                MSG_DONTWAIT | kNoSignal);
    may_have_room = false;
    if (sent < 0 && would_block()) continue;
    if (sent <= 0) return false;
    bytes += sent;
    length -= static_cast<int>(sent);
  }
  return true;
}

// A hang-up or error counts as ready: the read or write that follows tells.
bool connection::wait_for(short event) {
  for (;;) {
    const long long left_ms = limit_.left_ms();
    if (left_ms == 0) return false;
    pollfd entries[2] = {{descriptor_.get(), event, 0}, {stop_, POLLIN, 0}};
    const int ready = ::poll(entries, 2, poll_limit(left_ms));
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    return entries[1].revents == 0;
  }
}

}  // namespace ipc_priv
