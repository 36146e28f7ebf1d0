#pragma once

/// A per-user launchd as releases before 10.10 have it, that answers as the test says.

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "muro/sys/unique_fd.h"

namespace test {

/// A 64-bit word as the wire has it.
inline std::string wire_word(unsigned long long value) {
  std::string bytes;
  for (int shift = 0; shift < 64; shift += 8) bytes += static_cast<char>(value >> shift & 0xFF);
  return bytes;
}

inline constexpr unsigned long long kWireMagic = 0xD2FEA02366B39A41ULL;

/// A message whose header declares `declared` bytes whatever `body` is.
inline std::string wire_message(unsigned long long declared, const std::string& body,
                                unsigned long long magic = kWireMagic) {
  return wire_word(magic) + wire_word(declared) + body;
}

/// The reply with an error number, which is what launchd answers with.
inline std::string wire_answer(unsigned long long number, unsigned long long type = 9) {
  return wire_message(40, wire_word(type) + wire_word(0) + wire_word(number));
}

/// What launchd does with one connection after it has read the request.
struct scripted_reply {
  std::vector<std::string> pieces = {};  ///< each is sent when the client has taken the last one
  bool close = false;                    ///< whether this side then closes the connection
  bool with_descriptor = false;          ///< whether a descriptor travels with the first piece
  bool endless = false;                  ///< whether the last piece goes out until the client left
};

/// One connection as launchd saw it.
struct seen_request {
  std::string bytes;
  uid_t peer;
};

class scripted_launchd {
 public:
  /// Listens at `path`, where only user `uid` may connect.
  scripted_launchd(const std::string& path, uid_t uid)
      : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::chown(path.c_str(), uid, 20) != 0 || ::chmod(path.c_str(), 0600) != 0 ||
        ::listen(listener_.get(), 8) != 0) {
      throw std::runtime_error("cannot listen at " + path);
    }
    server_ = std::thread([this] { serve(); });
  }

  ~scripted_launchd() { stop(); }
  scripted_launchd(const scripted_launchd&) = delete;
  scripted_launchd& operator=(const scripted_launchd&) = delete;

  /// What the next connection that has no reply yet is answered; without a reply it is error
  /// number 0. The connection is left open unless the name says otherwise.
  void reply(const std::string& message) { add_reply({.pieces = {message}}); }
  void reply_in_pieces(std::vector<std::string> pieces) {
    add_reply({.pieces = std::move(pieces)});
  }
  void reply_and_close(std::vector<std::string> pieces) {
    add_reply({.pieces = std::move(pieces), .close = true});
  }
  void close_without_reply() { reply_and_close({}); }
  void reply_with_descriptor(const std::string& message) {
    add_reply({.pieces = {message}, .with_descriptor = true});
  }
  void reply_without_end(const std::string& first, const std::string& more) {
    add_reply({.pieces = {first, more}, .close = true, .endless = true});
  }

  /// Every connection so far, each read to its end: no client is left connected.
  std::vector<seen_request> requests() {
    stop();
    return requests_;
  }

 private:
  void add_reply(scripted_reply next) {
    const std::lock_guard lock(mutex_);
    replies_.push_back(std::move(next));
  }

  void stop() {
    if (!server_.joinable()) return;
    ::shutdown(listener_.get(), SHUT_RDWR);
    server_.join();
  }

  void serve() {
    for (;;) {
      const muro::unique_fd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!connection.is_open()) return;
      serve_one(connection.get());
    }
  }

  void serve_one(int connection) {
    seen_request request{read_message(connection), peer_of(connection)};
    const scripted_reply answer = next_reply();
    bool reachable = true;
    for (std::size_t i = 0; reachable && i < answer.pieces.size(); ++i) {
      reachable = send_piece(connection, answer.pieces[i], answer.with_descriptor && i == 0);
    }
    while (reachable && answer.endless) {
      reachable = send_piece(connection, answer.pieces.back(), false);
    }
    if (!answer.close) request.bytes += read_to_end(connection);
    const std::lock_guard lock(mutex_);
    requests_.push_back(std::move(request));
  }

  scripted_reply next_reply() {
    const std::lock_guard lock(mutex_);
    if (replies_.empty()) return scripted_reply{{wire_answer(0)}};
    scripted_reply next = std::move(replies_.front());
    replies_.pop_front();
    return next;
  }

  static uid_t peer_of(int connection) {
    ucred peer{};
    socklen_t size = sizeof peer;
    ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return peer.uid;
  }

  static std::string read_some(int connection, std::size_t most) {
    std::string bytes(most, '\0');
    const ssize_t got = ::read(connection, bytes.data(), most);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }

  // As many bytes as the header declares.
  static std::string read_message(int connection) {
    std::string bytes;
    std::size_t wanted = 16;
    while (bytes.size() < wanted) {
      const std::string more = read_some(connection, wanted - bytes.size());
      if (more.empty()) break;
      bytes += more;
      if (bytes.size() == 16) {
        unsigned long long declared;
        std::memcpy(&declared, bytes.data() + 8, sizeof declared);
        wanted = declared;
      }
    }
    return bytes;
  }

  static std::string read_to_end(int connection) {
    std::string bytes;
    for (std::string more; !(more = read_some(connection, 4096)).empty();) bytes += more;
    return bytes;
  }

  // Returns once the client has taken all of it; false when the client has gone.
  static bool send_piece(int connection, const std::string& piece, bool with_descriptor) {
    iovec part{const_cast<char*>(piece.data()), piece.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (with_descriptor) {
      message.msg_control = control;
      message.msg_controllen = sizeof control;
      cmsghdr* const head = CMSG_FIRSTHDR(&message);
      head->cmsg_level = SOL_SOCKET;
      head->cmsg_type = SCM_RIGHTS;
      head->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(head), &connection, sizeof(int));
    }
    if (::sendmsg(connection, &message, MSG_NOSIGNAL) < 0) return false;
    for (int waiting = 1; ::ioctl(connection, SIOCOUTQ, &waiting) == 0 && waiting > 0;) {
      pollfd gone{connection, 0, 0};
      if (::poll(&gone, 1, 1) > 0) return false;
    }
    return true;
  }

  muro::unique_fd listener_;
  std::thread server_;
  std::mutex mutex_;
  std::deque<scripted_reply> replies_;
  std::vector<seen_request> requests_;
};

}  // namespace test
