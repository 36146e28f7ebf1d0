#pragma once

/// A server on a socket of its own, for the tests of the thread behind an endpoint.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "ipc/endpoint.h"
#include "ipc/pipe_server.h"
#include "tests/ipc/recorder.h"
#include "tests/support/frame_client.h"
#include "tests/support/stopwatch.h"
#include "tests/support/temp_dir.h"

namespace test {

inline constexpr std::size_t kMiB = 0x100000;
// What "promptly" means on a machine that has other work to do.
inline constexpr long long kPrompt_ms = 1000;

/// An endpoint whose handler the test chooses. Its own server never serves.
class handler : public muro::ipc {
 public:
  using function = std::function<std::string(long, const std::string&)>;
  explicit handler(function reply)
      : ipc(endpoint_name(), true, false, defer_serving), reply_(std::move(reply)) {}
  ~handler() override { stop_serving(); }
  std::string handle_connection(long descriptor, const std::string& request) override {
    return reply_(descriptor, request);
  }
  std::string handle_request(const std::string&) override { return "not asked"; }

 private:
  function reply_;
};

/// A server on a socket of its own, answering through `reply_`.
class server : public ::testing::Test {
 protected:
  static int listen_at(const std::string& path) {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = socket_address(path);
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(descriptor, 20) != 0)
      throw std::runtime_error("listen");
    return descriptor;
  }

  void start() {
    listening_ = listen_at(path_);
    server_ = std::make_unique<pipe_server>(listening_, &endpoint_, how_);
  }
  void start_with(handler::function reply) {
    reply_ = std::move(reply);
    start();
  }
  frame_client connect() { return frame_client(path_); }
  /// The next client is served, so the thread has survived.
  void expect_serving() { EXPECT_EQ(connect().ask("still there"), reply_(0, "still there")); }
  void expect_prompt_end() {
    const stopwatch watch;
    server_.reset();
    EXPECT_LT(watch.ms(), kPrompt_ms);
  }

  temp_dir folder_;
  std::string path_ = folder_ / "socket";
  pipe_server::settings how_;
  handler::function reply_ = [](long, const std::string& request) { return "<" + request + ">"; };
  handler endpoint_{[this](long d, const std::string& r) { return reply_(d, r); }};
  std::unique_ptr<pipe_server> server_;
  int listening_ = -1;
};

}  // namespace test
