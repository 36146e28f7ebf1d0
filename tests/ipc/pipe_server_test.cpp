#include "ipc/pipe_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "ipc/endpoint.h"
#include "muro/core/exception.h"
#include "muro/sys/thread_internal.h"
#include "muro/sys/time.h"
#include "tests/ipc/recorder.h"
#include "tests/support/broken_pipes.h"
#include "tests/support/descriptors.h"
#include "tests/support/frame_client.h"
#include "tests/support/stopwatch.h"
#include "tests/support/temp_dir.h"

namespace {

using test::frame;
using test::frame_client;

constexpr std::size_t kMiB = 0x100000;
// What "promptly" means on a machine that has other work to do.
constexpr long long kPrompt_ms = 1000;

/// An endpoint whose handler the test chooses. Its own server never serves.
class handler : public muro::ipc {
 public:
  using function = std::function<std::string(long, const std::string&)>;
  explicit handler(function reply)
      : ipc(test::endpoint_name(), true, false, defer_serving), reply_(std::move(reply)) {}
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
    const sockaddr_un address = test::socket_address(path);
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
    const test::stopwatch watch;
    server_.reset();
    EXPECT_LT(watch.ms(), kPrompt_ms);
  }

  test::temp_dir folder_;
  std::string path_ = folder_ / "socket";
  pipe_server::settings how_;
  handler::function reply_ = [](long, const std::string& request) { return "<" + request + ">"; };
  handler endpoint_{[this](long d, const std::string& r) { return reply_(d, r); }};
  std::unique_ptr<pipe_server> server_;
  int listening_ = -1;
};

TEST_F(server, answers_one_frame_with_one_frame_and_closes) {
  start();
  frame_client client = connect();
  client.send_frame("hello");
  EXPECT_EQ(client.receive_all(), frame("<hello>"));
}

TEST_F(server, length_is_four_bytes_least_significant_first) {
  start();
  frame_client client = connect();
  client.send_bytes(std::string("\x02\0\0\0ab", 6));
  EXPECT_EQ(client.receive_all(), std::string("\x04\0\0\0<ab>", 8));
}

TEST_F(server, empty_request_and_empty_reply_are_frames) {
  start_with([](long, const std::string& request) {
    return request.empty() ? "" : "the request was not empty";
  });
  frame_client client = connect();
  client.send_frame("");
  EXPECT_EQ(client.receive_all(), std::string(4, '\0'));
}

TEST_F(server, bodies_of_one_mebibyte_pass_in_both_directions) {
  start_with([](long, const std::string& request) { return request; });
  const std::string largest(kMiB, 'm');
  EXPECT_EQ(connect().ask(largest), largest);
}

TEST_F(server, announced_byte_too_many_is_dropped_without_a_reply) {
  start();
  frame_client client = connect();
  client.send_bytes(std::string("\x01\0\x10\0", 4));
  EXPECT_EQ(client.receive_all(), "");
  expect_serving();
}

TEST_F(server, largest_announced_length_is_dropped_without_a_reply) {
  start();
  frame_client client = connect();
  client.send_bytes("\xff\xff\xff\xff");
  EXPECT_EQ(client.receive_all(), "");
  expect_serving();
}

TEST_F(server, reply_that_is_too_long_is_not_sent) {
  start_with([](long, const std::string& request) {
    return request == "much" ? std::string(kMiB + 1, 'x') : request;
  });
  frame_client client = connect();
  client.send_frame("much");
  EXPECT_EQ(client.receive_all(), "");
  expect_serving();
}

TEST_F(server, client_that_leaves_without_a_word_costs_nothing) {
  start();
  { frame_client client = connect(); }
  expect_serving();
}

TEST_F(server, request_cut_short_is_dropped_without_calling_the_handler) {
  start_with([](long, const std::string& request) {
    EXPECT_EQ(request, "still there");
    return request;
  });
  for (std::size_t cut = 0; cut < frame("request").size(); ++cut) {
    frame_client client = connect();
    client.send_bytes(frame("request").substr(0, cut));
    client.stop_sending();
    EXPECT_EQ(client.receive_all(), "") << cut;
  }
  expect_serving();
}

TEST_F(server, request_in_single_bytes_is_put_together) {
  start();
  frame_client client = connect();
  for (const char byte : frame("slowly")) client.send_bytes({byte});
  EXPECT_EQ(client.receive_reply(), "<slowly>");
}

TEST_F(server, one_connection_carries_one_request) {
  start();
  frame_client client = connect();
  client.send_bytes(frame("first") + frame("second"));
  EXPECT_EQ(client.receive_all(), frame("<first>"));
}

TEST_F(server, client_that_left_before_its_reply_raises_no_signal) {
  const auto before = ::signal(SIGPIPE, SIG_DFL);
  std::promise<void> left;
  start_with([&, gone = std::make_shared<std::shared_future<void>>(left.get_future())](
                 long, const std::string& request) {
    gone->wait();
    return request;
  });
  {
    frame_client client = connect();
    client.send_frame("never mind");
  }
  left.set_value();
  expect_serving();
  ::signal(SIGPIPE, before);
}

TEST_F(server, connections_are_served_one_after_another) {
  std::atomic<int> at_once{0};
  start_with([&](long, const std::string& request) {
    EXPECT_EQ(++at_once, 1);
    std::this_thread::yield();
    --at_once;
    return request;
  });
  std::vector<std::future<std::optional<std::string>>> clients;
  for (int i = 0; i < 8; ++i)
    clients.push_back(std::async(std::launch::async, [this] { return connect().ask("x"); }));
  for (auto& client : clients) EXPECT_EQ(client.get(), "x");
}

TEST_F(server, handler_gets_a_blocking_connection_that_closes_on_exec) {
  how_.accept = [](int listening, sockaddr* address, socklen_t* length) {
    return ::accept4(listening, address, length, SOCK_NONBLOCK);
  };
  start_with([](long descriptor, const std::string&) -> std::string {
    const int fd = static_cast<int>(descriptor);
    if (::fcntl(fd, F_GETFL) & O_NONBLOCK) return "not blocking";
    return ::fcntl(fd, F_GETFD) & FD_CLOEXEC ? "both" : "inherited";
  });
  EXPECT_EQ(connect().ask(""), "both");
}

TEST_F(server, listening_socket_does_not_block) {
  start();
  connect().ask("");
  EXPECT_TRUE(::fcntl(listening_, F_GETFL) & O_NONBLOCK);
}

TEST_F(server, has_no_name) {
  start();
  EXPECT_EQ(server_->name(), "");
}

TEST_F(server, owns_the_listening_socket) {
  start();
  server_.reset();
  EXPECT_FALSE(test::is_open(listening_));
}

TEST_F(server, leaves_no_descriptor) {
  const std::set<int> before = test::open_descriptors();
  start();
  connect().ask("x");
  server_.reset();
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST_F(server, without_a_stop_pipe_throws_and_leaves_the_socket_to_its_maker) {
  const muro::unique_fd listening(listen_at(path_));
  const test::broken_pipes none;
  try {
    pipe_server failed(listening.get(), &endpoint_);
    FAIL() << "no exception";
  } catch (const muro::exception& e) {
    EXPECT_EQ(e.description(),
              ":Error from 'pipe' (called in 'pipe_server'): 24, Too many open files");
  }
  EXPECT_TRUE(test::is_open(listening.get()));
}

TEST_F(server, without_a_thread_throws_and_leaves_the_socket_to_its_maker) {
  const test::log_lines unwanted;
  const muro::unique_fd listening(listen_at(path_));
  auto& create = muro::detail::g_thread_calls.create;
  const auto original = create.load();
  create = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; };
  EXPECT_THROW(pipe_server(listening.get(), &endpoint_), muro::exception);
  create = original;
  EXPECT_TRUE(test::is_open(listening.get()));
}

TEST_F(server, ends_promptly_when_nobody_is_connected) {
  start();
  expect_serving();
  expect_prompt_end();
}

TEST_F(server, ends_promptly_when_deferred_and_never_started) {
  how_.deferred = true;
  start();
  expect_prompt_end();
}

TEST_F(server, ends_promptly_though_a_client_says_nothing) {
  start();
  frame_client silent = connect();
  silent.send_bytes("\x05");
  expect_prompt_end();
  EXPECT_EQ(silent.receive_all(), "");
}

TEST_F(server, ends_promptly_though_a_client_does_not_take_its_reply) {
  std::promise<void> handled;
  start_with([&](long, const std::string&) {
    handled.set_value();
    return std::string(kMiB, 'r');
  });
  frame_client client = connect();
  client.send_frame("");
  handled.get_future().wait();
  expect_prompt_end();
}

TEST_F(server, silent_client_is_dropped_after_the_limit) {
  how_.frame_limit_ms = 60;
  start();
  const test::stopwatch watch;
  frame_client silent = connect();
  EXPECT_EQ(silent.receive_all(), "");
  EXPECT_GE(watch.ms(), 40);  // the clock has ticks of 10 ms
  expect_serving();
}

TEST_F(server, trickling_client_gets_no_more_time_than_a_silent_one) {
  how_.frame_limit_ms = 60;
  start();
  frame_client client = connect();
  client.send_bytes(std::string("\0\0\x10\0", 4));
  const test::stopwatch watch;
  while (client.send_bytes("x") && watch.ms() < 10000)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_LT(watch.ms(), 10000);
  expect_serving();
}

TEST_F(server, client_that_does_not_take_its_reply_is_dropped_after_the_limit) {
  how_.frame_limit_ms = 60;
  start_with([](long, const std::string& request) {
    return request == "much" ? std::string(kMiB, 'r') : request;
  });
  frame_client client = connect();
  client.send_frame("much");
  expect_serving();
  EXPECT_LT(client.receive_all().size(), kMiB);
}

TEST_F(server, reply_has_a_limit_of_its_own_however_long_the_handler_took) {
  how_.frame_limit_ms = 60;
  start_with([](long, const std::string& request) {
    std::this_thread::sleep_for(std::chrono::milliseconds(90));
    return request;
  });
  EXPECT_EQ(connect().ask("late"), "late");
}

TEST_F(server, whole_frame_has_thirty_seconds) {
  EXPECT_EQ(pipe_server::settings{}.frame_limit_ms, 30000);
}

std::atomic<int> accept_calls{0};
template <int Error, int Failures>
int failing_accept(int listening, sockaddr* address, socklen_t* length) {
  if (++accept_calls > Failures) return ::accept(listening, address, length);
  errno = Error;
  return -1;
}

TEST_F(server, rests_when_it_cannot_take_a_client_and_then_takes_it) {
  accept_calls = 0;
  how_.accept = failing_accept<EMFILE, 2>;
  start();
  const test::stopwatch watch;
  EXPECT_EQ(connect().ask("patient"), "<patient>");
  EXPECT_GE(watch.ms(), 200);
  EXPECT_EQ(accept_calls, 3);
}

TEST_F(server, ends_promptly_though_no_client_can_be_taken) {
  accept_calls = 0;
  how_.accept = failing_accept<ENFILE, 1000000>;
  start();
  frame_client client = connect();
  while (accept_calls == 0) std::this_thread::yield();
  expect_prompt_end();
  EXPECT_LT(accept_calls, 30);
}

std::atomic<int> pauses{0};

TEST_F(server, rests_when_it_cannot_even_wait_and_then_goes_on) {
  pauses = 0;
  muro::x_pause_us = [](unsigned long long us) {
    EXPECT_EQ(us, 100000u);
    ++pauses;
    ::usleep(1000);
  };
  start();
  expect_serving();
  const muro::unique_fd client(::socket(AF_UNIX, SOCK_STREAM, 0));
  {
    // poll(2) refuses more entries than the process may have descriptors.
    test::descriptor_limit one(1);
    const sockaddr_un address = test::socket_address(path_);
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    while (pauses < 3) std::this_thread::yield();
  }
  EXPECT_TRUE(pipe_server::write_(client.get(), "patient"));
  std::string reply;
  EXPECT_TRUE(pipe_server::read_(client.get(), reply));
  EXPECT_EQ(reply, "<patient>");
  server_.reset();
  muro::x_pause_us = nullptr;
}

TEST_F(server, tries_again_at_once_when_another_wake_up_took_the_client) {
  accept_calls = 0;
  how_.accept = failing_accept<EAGAIN, 50>;
  start();
  const test::stopwatch watch;
  EXPECT_EQ(connect().ask("x"), "<x>");
  EXPECT_LT(watch.ms(), 50 * 100);
  EXPECT_EQ(accept_calls, 51);
}

TEST_F(server, failure_to_stop_the_thread_ends_the_process) {
  EXPECT_DEATH(
      {
        const std::set<int> before = test::open_descriptors();
        start();
        for (const int descriptor : test::open_descriptors())
          if (before.count(descriptor) == 0) ::close(descriptor);
        server_.reset();
        std::_Exit(0);
      },
      "terminate called");
}

TEST_F(server, exception_from_the_handler_ends_the_process) {
  EXPECT_DEATH(
      {
        start_with(
            [](long, const std::string&) -> std::string { throw std::runtime_error("escaped"); });
        connect().ask("x");
        std::_Exit(0);
      },
      "escaped");
}

}  // namespace
