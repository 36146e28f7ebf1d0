#include "fuzz/fake_launchd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>

#include "fuzz/target.h"

namespace fake {

launchd* peer = nullptr;

long long now_ms() {
  return peer->now_ms;
}

namespace {

constexpr int kSocket = 1000;
constexpr long long kLimit_ms = 10000;
constexpr std::size_t kRoom = 8192;
constexpr socklen_t kAddressSize = 106;

bool is_mine(int descriptor) {
  return peer != nullptr && descriptor == kSocket;
}

int fail(int error) {
  errno = error;
  return -1;
}

/// `error`, or success.
int result(int error) {
  return error != 0 ? fail(error) : 0;
}

int wait(pollfd& entry, int timeout_ms) {
  fuzz::require(timeout_ms == kLimit_ms - peer->now_ms, "a wait has what is left of the limit");
  if (peer->interrupts(peer->waits++)) {
    peer->now_ms = std::min(kLimit_ms, peer->now_ms + kPerInterruption_ms);
    return fail(EINTR);
  }
  if (peer->deliveries.empty() && peer->end == kStaysSilent) {
    peer->now_ms += timeout_ms;
    return 0;
  }
  peer->may_receive = true;
  entry.revents = POLLIN;
  return 1;
}

ssize_t receive(msghdr& message) {
  fuzz::require(std::exchange(peer->may_receive, false), "nothing is received without a wait");
  fuzz::require(message.msg_iovlen == 1 && message.msg_iov->iov_len == kRoom &&
                    message.msg_control == nullptr,
                "a receive has room for 8192 bytes and for no descriptors");
  if (peer->receives++ == peer->receive_with_cut_control) message.msg_flags |= MSG_CTRUNC;
  if (peer->deliveries.empty()) return result(peer->end);
  std::string_view& next = peer->deliveries.front();
  const std::size_t count = std::min(next.size(), kRoom);
  std::memcpy(message.msg_iov->iov_base, next.data(), count);
  next.remove_prefix(count);
  if (next.empty()) peer->deliveries.erase(peer->deliveries.begin());
  return static_cast<ssize_t>(count);
}

ssize_t send(const msghdr& message) {
  fuzz::require(peer->user == 0 && peer->blocks, "root sends, and waits for room");
  if (peer->send_error != 0) return fail(peer->send_error);
  fuzz::require(message.msg_iovlen == 2 && message.msg_control == nullptr, "header and body");
  const std::size_t before = peer->sent.size();
  for (std::size_t i = 0; i < 2; ++i)
    peer->sent.append(static_cast<const char*>(message.msg_iov[i].iov_base),
                      message.msg_iov[i].iov_len);
  return static_cast<ssize_t>(peer->sent.size() - before);
}

int connect(const sockaddr_un& address, socklen_t size) {
  fuzz::require(size == kAddressSize && !peer->blocks, "connected at once, with the whole address");
  peer->path.assign(address.sun_path, ::strnlen(address.sun_path, sizeof address.sun_path));
  peer->user_at_connect = peer->user;
  return result(peer->connect_error);
}

}  // namespace
}  // namespace fake

using fake::peer;

extern "C" {

uid_t geteuid() noexcept {
  return peer != nullptr ? peer->user : static_cast<uid_t>(::syscall(SYS_geteuid));
}

int seteuid(uid_t user) noexcept {
  if (peer == nullptr) return static_cast<int>(::syscall(SYS_setresuid, -1, user, -1));
  if (user != 0 && peer->user_error != 0) return fake::fail(peer->user_error);
  peer->user = user;
  return 0;
}

int socket(int domain, int type, int protocol) noexcept {
  if (peer == nullptr) return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
  if (peer->socket_error != 0) return fake::fail(peer->socket_error);
  fuzz::require(!std::exchange(peer->is_open, true), "one socket at a time");
  return fake::kSocket;
}

int connect(int descriptor, const sockaddr* address, socklen_t size) {
  if (!fake::is_mine(descriptor))
    return static_cast<int>(::syscall(SYS_connect, descriptor, address, size));
  return fake::connect(*reinterpret_cast<const sockaddr_un*>(address), size);
}

int fcntl(int descriptor, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  if (!fake::is_mine(descriptor))
    return static_cast<int>(::syscall(SYS_fcntl, descriptor, command, argument));
  if (command == F_SETFL) peer->blocks = (argument & O_NONBLOCK) == 0;
  return command == F_GETFL && !peer->blocks ? O_NONBLOCK : 0;
}

int setsockopt(int descriptor, int level, int name, const void* value, socklen_t size) noexcept {
  if (fake::is_mine(descriptor)) return 0;
  return static_cast<int>(::syscall(SYS_setsockopt, descriptor, level, name, value, size));
}

ssize_t sendmsg(int descriptor, const msghdr* message, int flags) {
  if (fake::is_mine(descriptor)) return fake::send(*message);
  return ::syscall(SYS_sendmsg, descriptor, message, flags);
}

ssize_t recvmsg(int descriptor, msghdr* message, int flags) {
  if (!fake::is_mine(descriptor)) return ::syscall(SYS_recvmsg, descriptor, message, flags);
  fuzz::require(peer->user == 0 && flags == MSG_DONTWAIT, "root receives, and never blocks");
  return fake::receive(*message);
}

// By another name in the source: the header's tells the compiler that the entries are not read.
int own_poll(pollfd* entries, nfds_t count, int timeout_ms) asm("poll");
int own_poll(pollfd* entries, nfds_t count, int timeout_ms) {
  if (count == 1 && fake::is_mine(entries->fd)) return fake::wait(*entries, timeout_ms);
  return static_cast<int>(::syscall(SYS_poll, entries, count, timeout_ms));
}

int close(int descriptor) {
  if (!fake::is_mine(descriptor)) return static_cast<int>(::syscall(SYS_close, descriptor));
  fuzz::require(std::exchange(peer->is_open, false), "the socket is closed once");
  return 0;
}
}
