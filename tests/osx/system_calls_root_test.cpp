#include "tests/osx/system_calls.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace test {

thread_local system_calls* watched = nullptr;

}  // namespace test

namespace {

template <class... Args>
long ask_kernel(long number, Args... args) {
  return ::syscall(number, args...);
}

bool fails_with(int error) {
  errno = error != 0 ? error : errno;
  return error != 0;
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

// The C library's own changes the user of every thread.
int seteuid(uid_t uid) noexcept {
  static const auto real = reinterpret_cast<int (*)(uid_t)>(::dlsym(RTLD_NEXT, "seteuid"));
  const int result = real(uid);
  if (test::watched != nullptr && test::watched->seteuid_errno != 0) {
    errno = test::watched->seteuid_errno;
  }
  return result;
}

int pipe(int ends[2]) noexcept {
  if (test::watched != nullptr && fails_with(test::watched->pipe_error)) return -1;
  return static_cast<int>(ask_kernel(SYS_pipe2, ends, 0));
}

int socket(int domain, int type, int protocol) noexcept {
  if (test::watched != nullptr && fails_with(test::watched->socket_error)) return -1;
  return static_cast<int>(ask_kernel(SYS_socket, domain, type, protocol));
}

int connect(int fd, const sockaddr* address, socklen_t length) {
  if (test::watched != nullptr) {
    test::watched->connect_lengths.push_back(length);
    test::watched->connect_users.push_back(::geteuid());
  }
  return static_cast<int>(ask_kernel(SYS_connect, fd, address, length));
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  if (test::watched != nullptr) {
    test::watched->sent.push_back(lengths_of(*message));
    test::watched->sent_control |= message->msg_control != nullptr || message->msg_controllen != 0;
    if (fails_with(test::watched->sendmsg_error)) return -1;
  }
  return ask_kernel(SYS_sendmsg, fd, message, flags);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
  if (test::watched != nullptr) test::watched->received_into.push_back(lengths_of(*message)[0]);
  return ask_kernel(SYS_recvmsg, fd, message, flags);
}
}
