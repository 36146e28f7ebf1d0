#pragma once

/// A helper that does on each connection what the test says.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "ipc/pipe_server.h"
#include "ipc/socket.h"
#include "muro/core/init.h"
#include "muro/sys/unique_fd.h"
#include "tests/support/unique_name.h"

namespace test {

/// The runtime as the tool's main starts it, once for the whole test program.
inline void start_runtime() {
  [[maybe_unused]] static const muro::init* const runtime = [] {
    auto* made = new muro::init;
    muro::init_make_socket();
    return made;
  }();
}

/// An endpoint name that no other test uses.
inline std::string endpoint_name() {
  return unique_name("korvel_test_");
}

inline std::string endpoint_path(const std::string& name) {
  return "/tmp/" + name + ".ipc";
}

inline muro::unique_fd listen_at(const std::string& name, int backlog) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = endpoint_path(name);
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ::unlink(path.c_str());
  muro::unique_fd made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::bind(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(made.get(), backlog) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  return made;
}

/// Serves one connection with `behave`, which may look at `stopped` to learn that the test is over.
class fake_helper {
 public:
  using behaviour = std::function<void(fake_helper& self, int connection)>;

  fake_helper(const std::string& name, behaviour behave)
      : name_(name), behave_(std::move(behave)), listening_(listen_at(name, 5)) {
    if (::pipe(stop_) != 0) throw std::runtime_error("pipe");
    thread_ = std::thread([this] { serve(); });
  }
  ~fake_helper() {
    ::close(stop_[1]);
    thread_.join();
    ::close(stop_[0]);
    ::unlink(endpoint_path(name_).c_str());
  }
  fake_helper(const fake_helper&) = delete;
  fake_helper& operator=(const fake_helper&) = delete;

  /// Blocks for `wait_ms` (-1: for ever) or to the end of the test; true at the end of the test.
  bool stopped(int wait_ms) {
    pollfd entry{stop_[0], POLLIN, 0};
    return ::poll(&entry, 1, wait_ms) != 0;
  }

  /// What the last connection asked; read it after the exchange has ended.
  std::string request;

 private:
  void serve() {
    pollfd entries[] = {{listening_.get(), POLLIN, 0}, {stop_[0], POLLIN, 0}};
    ::poll(entries, 2, -1);
    if (entries[1].revents != 0) return;
    const muro::unique_fd connection(::accept(listening_.get(), nullptr, nullptr));
    behave_(*this, connection.get());
  }

  std::string name_;
  behaviour behave_;
  muro::unique_fd listening_;
  int stop_[2];
  std::thread thread_;
};

/// Takes one request and gives the empty reply, as the helper does.
inline void answer(fake_helper& self, int connection) {
  if (pipe_server::read_(connection, self.request)) pipe_server::write_(connection, "");
}

}  // namespace test
