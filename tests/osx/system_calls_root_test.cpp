#include "tests/osx/system_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmpx.h>

#include <cerrno>
#include <cstdio>

namespace test {

thread_local system_calls* watched = nullptr;

}  // namespace test

namespace {

/// The definition that stands behind this program's own: a sanitizer's, which has to see that a
/// descriptor is closed before its number comes again, or else the C library's.
template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool fails_with(int error) {
  errno = error != 0 ? error : errno;
  return error != 0;
}

void spoil_errno() {
  if (test::watched != nullptr && test::watched->errno_after_success != 0) {
    errno = test::watched->errno_after_success;
  }
}

void note(const std::string& call) {
  if (test::watched != nullptr) test::watched->named.push_back(call);
}

std::vector<std::size_t> lengths_of(const msghdr& message) {
  std::vector<std::size_t> lengths;
  for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
    lengths.push_back(message.msg_iov[i].iov_len);
  }
  return lengths;
}

}  // namespace

extern "C" {

int seteuid(uid_t uid) noexcept {
  static const auto real = next(&seteuid, "seteuid");
  const int result = real(uid);
  spoil_errno();
  return result;
}

int socket(int domain, int type, int protocol) noexcept {
  if (test::watched != nullptr && fails_with(test::watched->socket_error)) return -1;
  static const auto real = next(&socket, "socket");
  return real(domain, type, protocol);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
  if (test::watched != nullptr) {
    test::watched->connect_lengths.push_back(length);
    test::watched->connect_users.push_back(::geteuid());
  }
  static const auto real = next(&connect, "connect");
  return real(fd, address, length);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  if (test::watched != nullptr) {
    test::watched->sent.push_back(lengths_of(*message));
    test::watched->sent_control |= message->msg_control != nullptr || message->msg_controllen != 0;
    if (fails_with(test::watched->sendmsg_error)) return -1;
  }
  if (test::watched != nullptr) {
    test::watched->sent_on_plain_socket &=
        ::fcntl(fd, F_GETFD) == FD_CLOEXEC && (::fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
  }
  static const auto real = next(&sendmsg, "sendmsg");
  const ssize_t sent = real(fd, message, flags);
  spoil_errno();
  return sent;
}

int close(int fd) {
  static const auto real = next(&close, "close");
  const int result = real(fd);
  return test::watched != nullptr && fails_with(test::watched->close_error) ? -1 : result;
}

int rename(const char* from, const char* to) noexcept {
  if (test::watched != nullptr && test::watched->at_rename) test::watched->at_rename(from, to);
  static const auto real = next(&rename, "rename");
  return real(from, to);
}

int chmod(const char* path, mode_t mode) noexcept {
  if (test::watched != nullptr && test::watched->at_chmod) test::watched->at_chmod(path);
  char text[32];
  std::snprintf(text, sizeof text, "chmod %o", mode);
  note(text);
  static const auto real = next(&chmod, "chmod");
  return real(path, mode);
}

int chown(const char* path, uid_t owner, gid_t group) noexcept {
  note("chown " + std::to_string(owner) + " " + std::to_string(group));
  static const auto real = next(&chown, "chown");
  return real(path, owner, group);
}

void setutxent() {
  note("setutxent");
  static const auto real = next(&setutxent, "setutxent");
  real();
}

void endutxent() {
  note("endutxent");
  static const auto real = next(&endutxent, "endutxent");
  real();
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
  if (test::watched != nullptr) test::watched->received_into.push_back(lengths_of(*message)[0]);
  static const auto real = next(&recvmsg, "recvmsg");
  return real(fd, message, flags);
}
}

// Looked up now: a forked child closes descriptors too, and must not look anything up.
[[maybe_unused]] const int looked_up = ::close(-1);
