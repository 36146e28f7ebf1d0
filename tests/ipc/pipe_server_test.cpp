#include "ipc/pipe_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "muro/core/exception.h"
#include "muro/sys/thread_internal.h"
#include "tests/ipc/server_fixture.h"
#include "tests/support/broken_pipes.h"
#include "tests/support/descriptors.h"

namespace {

using test::frame;
using test::frame_client;
using test::handler;
using test::kMiB;
using test::server;

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

TEST_F(server, request_after_a_longer_one_holds_nothing_of_it) {
  start_with([](long, const std::string& request) { return request; });
  EXPECT_NE(connect().ask(std::string(kMiB, 'm')), std::nullopt);
  EXPECT_EQ(connect().ask("short"), "short");
  EXPECT_EQ(connect().ask(""), "");
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
