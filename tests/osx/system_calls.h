#pragma once

/// The system calls of the launchd layer, each of which a test can make fail or look at. The
/// definitions stand in one source of the test program and take the place of the C library's.

#include <sys/socket.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace test {

struct system_calls {
  /// Not 0: the call fails with that errno.
  int socket_error = 0;
  int sendmsg_error = 0;
  /// The file is closed all the same.
  int close_error = 0;
  /// Not 0: what a `seteuid` or `sendmsg` that succeeds leaves in errno.
  int errno_after_success = 0;

  /// Called with the paths before the call.
  std::function<void(const char* from, const char* to)> at_rename;
  std::function<void(const char* path)> at_chmod;

  /// The address length of every `connect`.
  std::vector<socklen_t> connect_lengths;
  /// The effective user at every `connect`.
  std::vector<unsigned> connect_users;
  /// The buffer lengths of every `sendmsg` of a local stream by the thread under test.
  std::vector<std::vector<std::size_t>> sent;
  /// Whether any of these had a control buffer.
  bool sent_control = false;
  /// Whether every `sendmsg` was on a descriptor that blocks and is closed on exec.
  bool sent_on_plain_socket = true;
  /// The calls that change a file's rights or rewind the login records, in order, by name.
  std::vector<std::string> named;
  /// The room of every `recvmsg`.
  std::vector<std::size_t> received_into;
};

/// What is in force; null lets every call through unseen.
extern thread_local system_calls* watched;

}  // namespace test
