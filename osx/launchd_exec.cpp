#include "osx/launchd_exec.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <limits>
#include <map>
#include <optional>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/pipe.h"
#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"
#include "muro/sys/user_switch.h"
#include "osx/launch_data.h"
#include "osx/launchd_wait.h"
#include "osx/sessions.h"

constinit long long osx_priv::exchange_limit_ms = osx_priv::kExchangeLimit_ms;

namespace {

constexpr char kSendToSock[] = "send_to_sock";
constexpr unsigned long long kMagic = 0xD2FEA02366B39A41ULL;
constexpr std::int32_t kReceiveRoom = 8192;
constexpr std::int32_t kReplyLimit = 16 * 1024 * 1024;
constexpr unsigned long long kAfterCall_us = 100 * 1000;
constexpr char kJobLabel[] = "norvane.jobsubmit";

// The path field of macOS; every system is held to it, and to the address length that follows.
constexpr std::size_t kPathField = 104;
constexpr socklen_t kAddressSize = offsetof(sockaddr_un, sun_path) + kPathField;
static_assert(kAddressSize == 106 && sizeof(sockaddr_un) >= kAddressSize);

struct message_header {
  launch_data::word magic;
  launch_data::word length;
};
constexpr std::int32_t kHeaderSize = sizeof(message_header);
static_assert(kHeaderSize == 16);

sockaddr_un address_of(const std::string& path) {
  if (path.size() >= kPathField) {
    const muro::exception refused = muro::exception::function(kSendToSock);
    throw muro::exception(refused.description() + ": socket path too long");
  }
  // Cut at a zero byte it would be another socket, perhaps another user's.
  if (path.find('\0') != std::string::npos) throw muro::exception::function(kSendToSock);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

// A local connection is made at once or not at all. Where a full queue of the listener would block
// (macOS refuses then), it is a failure too: the process must not be kept waiting, and with it the
// log, while it acts as a user who may own the listener.
void connect_at_once(int fd, const sockaddr_un& address) {
  const int flags = ::fcntl(fd, F_GETFL);
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), kAddressSize) != 0) {
    throw muro::exception::system_error_context(kSendToSock, "connect", "cannot connect");
  }
  ::fcntl(fd, F_SETFL, flags);
}

muro::unique_fd connect_as(unsigned long long uid, const std::string& path) {
  const sockaddr_un address = address_of(path);
  const muro::user_switch as_user(uid, kSendToSock);
  muro::unique_fd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
  if (!fd.is_open()) throw muro::exception::function(kSendToSock);
  muro::set_close_on_exec(fd.get());
  connect_at_once(fd.get(), address);
  return fd;
}

// What the helper sends fits the socket's buffer, so sending does not depend on launchd at all. More
// than that waits for room, each time this long at most.
void limit_sending(int fd) {
  timeval limit{};
  limit.tv_sec = static_cast<time_t>(osx_priv::exchange_limit_ms / 1000);
  limit.tv_usec = static_cast<suseconds_t>(osx_priv::exchange_limit_ms % 1000 * 1000);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// A short send is not detected; the reply, or the lack of one, tells.
void send_message(int fd, std::string& body) {
  message_header header{kMagic, body.size() + kHeaderSize};
  iovec parts[] = {{&header, sizeof header}, {body.data(), body.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  if (::sendmsg(fd, &message, 0) < 0) {
    throw muro::exception::system_error_context(kSendToSock, "sendmsg", "while sending to launchd");
  }
}

// Waits for something to receive, the end of the connection included. False when waiting fails or
// the time is over, with errno, ETIMEDOUT then.
bool await_receive(int fd, const muro::time_limit& limit) {
  pollfd entry{fd, POLLIN, 0};
  for (;;) {
    const long long left_ms = limit.left_ms();
    errno = ETIMEDOUT;
    if (left_ms == 0) return false;
    const int ready = ::poll(&entry, 1, static_cast<int>(std::min<long long>(left_ms, INT_MAX)));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

[[noreturn]] void fail_to_receive() {
  throw muro::exception::system_error_context(kSendToSock, "recvmsg",
                                              "while receiving from launchd");
}

// Appends what one receive yields.
std::int32_t receive_some(int fd, const muro::time_limit& limit, netbuf& reply) {
  if (!await_receive(fd, limit)) fail_to_receive();
  iovec part{reply.allocate_back(kReceiveRoom), static_cast<std::size_t>(kReceiveRoom)};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  errno = 0;
  const ssize_t got = ::recvmsg(fd, &message, MSG_DONTWAIT);
  if (got <= 0 || (message.msg_flags & MSG_CTRUNC) != 0) fail_to_receive();
  reply.erase_back(kReceiveRoom - static_cast<std::int32_t>(got));
  return static_cast<std::int32_t>(got);
}

// Whether the reply counts as complete. Deliberate: it does once it holds no more than it declares.
bool is_complete(const netbuf& reply) {
  if (reply.size() < kHeaderSize) return false;
  message_header header;
  reply.copy_front(reinterpret_cast<char*>(&header), kHeaderSize);
  if (header.magic != kMagic || header.length <= static_cast<unsigned>(kHeaderSize)) {
    throw muro::exception::function(kSendToSock);
  }
  return header.length >= static_cast<unsigned>(reply.size());
}

netbuf receive_message(const muro::fmt_dbg& log, int fd, const muro::time_limit& limit) {
  netbuf reply;
  for (;;) {
    const std::int32_t got = receive_some(fd, limit, reply);
    if (is_complete(reply)) break;
    if (reply.size() >= kReplyLimit) throw muro::exception::function(kSendToSock);
    log.fmt_verbose("got %1% - retrying", got);
  }
  reply.erase_front(kHeaderSize);
  return reply;
}

}  // namespace

netbuf send_to_sock(unsigned long long uid, const std::string& socket_path, netbuf body) {
  const muro::fmt_dbg log("send_to_sock");
  std::string content = body.to_string();
  log.fmt_verbose("rpc to %1%", socket_path);
  const muro::unique_fd fd = connect_as(uid, socket_path);
  const muro::time_limit limit(osx_priv::exchange_limit_ms);
  limit_sending(fd.get());
  send_message(fd.get(), content);
  return receive_message(log, fd.get(), limit);
}

void launchd_call(unsigned long long uid, const std::string& socket_path, netbuf body) {
  const muro::fmt_dbg log("launchd_call");
  netbuf reply = send_to_sock(uid, socket_path, body);
  const launch_data::head head = launch_data::pop(reply);
  log.fmt_verbose("received %1%-%2%-%3%", head.type, head.first, head.second);
  if (head.type != launch_data::kErrorNumber) throw muro::exception::function("launchd_call");
  muro::pause_us(kAfterCall_us);
}

namespace osx {
namespace {

netbuf boolean(bool value) {
  return launch_data::add(launch_data::kBoolean, 0, value ? 1 : 0);
}

netbuf remove_request() {
  return launch_data::add_dict({{"RemoveJob", launch_data::add_string(kJobLabel)}});
}

netbuf submit_request(const std::vector<std::string>& command) {
  std::vector<netbuf> words;
  for (const std::string& word : command) words.push_back(launch_data::add_string(word));
  const netbuf job = launch_data::add_dict({
      {"KeepAlive", boolean(false)},
      {"Label", launch_data::add_string(kJobLabel)},
      {"OnDemand", boolean(true)},
      {"ProgramArguments", launch_data::add_vect(words, launch_data::kArray)},
      {"RunAtLoad", boolean(true)},
  });
  return launch_data::add_dict({{"SubmitJob", job}});
}

std::optional<std::string> launchd_folder_of(unsigned long long uid) {
  if (uid > std::numeric_limits<session_map::key_type>::max()) return std::nullopt;
  const session_map sessions = get_sessions();
  const auto found = sessions.find(static_cast<session_map::key_type>(uid));
  if (found == sessions.end()) return std::nullopt;
  return found->second;
}

// A job that is not there is as good as one removed, and so is one that cannot be reached.
void remove_job(unsigned long long uid, const std::string& socket_path, const netbuf& request) {
  try {
    launchd_call(uid, socket_path, request);
  } catch (...) {
  }
}

}  // namespace

void launchd_exec(unsigned long long uid, std::vector<std::string> command) {
  const muro::fmt_dbg log("launchd_exec");
  const std::optional<std::string> folder = launchd_folder_of(uid);
  if (!folder) {
    log.fmt_verbose("session not found");
    return;
  }
  const std::string socket_path = *folder + "/sock";
  const netbuf remove = remove_request();
  log.fmt_verbose("preparing ...");
  remove_job(uid, socket_path, remove);
  // Deliberate: the misspelt word is part of the message.
  log.fmt_verbose("submiting ...");
  try {
    launchd_call(uid, socket_path, submit_request(command));
  } catch (const muro::exception& e) {
    log.fmt_verbose("err %1%", e.description());
  }
  log.fmt_verbose("cleaning ...");
  remove_job(uid, socket_path, remove);
}

}  // namespace osx
