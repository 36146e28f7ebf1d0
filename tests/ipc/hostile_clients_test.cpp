// What clients and want can do to the server: none of it stops the service, or its end.

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <future>
#include <thread>
#include <vector>

#include "muro/sys/time.h"
#include "tests/ipc/server_fixture.h"
#include "tests/support/descriptors.h"
#include "tests/support/stepping_clock.h"

namespace {

using test::frame;
using test::frame_client;
using test::kMiB;
using test::server;

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

TEST_F(server, ends_promptly_though_a_client_trickles) {
  start();
  frame_client client = connect();
  std::atomic<bool> stop{false};
  std::thread trickling([&] {
    client.send_bytes(std::string("\0\0\x10\0", 4));
    while (!stop && client.send_bytes("x")) std::this_thread::yield();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  expect_prompt_end();
  stop = true;
  trickling.join();
}

TEST_F(server, ends_promptly_though_a_client_takes_its_reply_byte_by_byte) {
  std::promise<void> handled;
  start_with([&](long, const std::string&) {
    handled.set_value();
    return std::string(kMiB, 'r');
  });
  frame_client client = connect();
  client.send_frame("");
  handled.get_future().wait();
  std::atomic<bool> stop{false};
  std::thread taking([&] {
    char byte;
    while (!stop && ::recv(client.descriptor(), &byte, 1, MSG_DONTWAIT) != 0)
      std::this_thread::yield();
  });
  expect_prompt_end();
  stop = true;
  taking.join();
}

TEST_F(server, ends_promptly_though_its_queue_is_full_of_silent_clients) {
  start();
  std::vector<frame_client> clients;
  for (int i = 0; i < 20; ++i) clients.push_back(connect());
  expect_prompt_end();
}

TEST_F(server, silent_client_is_dropped_after_the_limit) {
  how_.frame_limit_ms = 60;
  start();
  const test::stopwatch watch;
  frame_client silent = connect();
  EXPECT_EQ(silent.receive_all(), "");
  EXPECT_GE(watch.ms(), 60);
  expect_serving();
}

TEST_F(server, wall_clock_that_is_set_does_not_change_the_limit) {
  how_.frame_limit_ms = 60;
  start();
  const test::stepping_clock clock(-3600);
  const test::stopwatch watch;
  EXPECT_EQ(connect().receive_all(), "");
  EXPECT_GE(watch.ms(), 60);
  EXPECT_LT(watch.ms(), 10000);
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

using accept_function = int (*)(int, sockaddr*, socklen_t*);

TEST_F(server, rests_when_it_cannot_take_a_client_and_then_takes_it) {
  for (const accept_function failing : {failing_accept<EMFILE, 2>, failing_accept<ENFILE, 2>,
                                        failing_accept<ENOMEM, 2>, failing_accept<ENOBUFS, 2>}) {
    server_.reset();
    ::unlink(path_.c_str());
    accept_calls = 0;
    how_.accept = failing;
    start();
    const test::stopwatch watch;
    EXPECT_EQ(connect().ask("patient"), "<patient>");
    EXPECT_GE(watch.ms(), 200);
    EXPECT_EQ(accept_calls, 3);
  }
}

TEST_F(server, does_not_spin_and_ends_promptly_though_no_client_can_be_taken) {
  for (const accept_function failing :
       {failing_accept<EMFILE, 1000000>, failing_accept<ENFILE, 1000000>,
        failing_accept<ENOMEM, 1000000>, failing_accept<ENOBUFS, 1000000>,
        failing_accept<ECONNABORTED, 1000000>, failing_accept<EAGAIN, 1000000>}) {
    server_.reset();
    ::unlink(path_.c_str());
    accept_calls = 0;
    how_.accept = failing;
    start();
    frame_client client = connect();
    const test::stopwatch watch;
    while (watch.ms() < 250) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GT(accept_calls, 0);
    EXPECT_LT(accept_calls, 32 + 2 + watch.ms() / 100);
    expect_prompt_end();
  }
}

TEST_F(server, rest_is_not_shortened_by_signals) {
  accept_calls = 0;
  static std::atomic<pthread_t> serving;
  serving = pthread_t{};
  how_.accept = [](int listening, sockaddr* address, socklen_t* length) {
    serving = ::pthread_self();
    return failing_accept<EMFILE, 2>(listening, address, length);
  };
  struct sigaction quiet {};
  quiet.sa_handler = [](int) {};
  struct sigaction before {};
  ::sigaction(SIGUSR1, &quiet, &before);
  start();
  frame_client client = connect();
  const test::stopwatch watch;
  while (accept_calls < 3 && watch.ms() < 10000) {
    if (accept_calls > 0) ::pthread_kill(serving, SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_GE(watch.ms(), 190);
  EXPECT_EQ(client.ask("patient"), "<patient>");
  server_.reset();
  ::sigaction(SIGUSR1, &before, nullptr);
}

// The undefined-behaviour sanitizer needs descriptors of its own to look at objects.
#ifndef __SANITIZE_ADDRESS__
TEST_F(server, comes_back_by_itself_when_descriptors_are_to_be_had_again) {
  accept_calls = 0;
  how_.accept = failing_accept<0, 0>;
  how_.deferred = true;
  start();
  frame_client client = connect();
  client.send_frame("patient");
  {
    const test::descriptor_limit none(test::lowest_free());
    server_->serve();
    while (accept_calls < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(client.receive_reply(), "<patient>");
}
#endif

TEST_F(server, client_that_stops_sending_behind_its_request_gets_its_reply) {
  start();
  frame_client client = connect();
  client.send_frame("half");
  client.stop_sending();
  EXPECT_EQ(client.receive_reply(), "<half>");
}

TEST_F(server, client_that_resets_its_connection_costs_nothing) {
  start();
  for (const std::string& sent : {std::string(), frame("x").substr(0, 2), frame("x") + "more"}) {
    frame_client client = connect();
    client.send_bytes(sent);
    const linger at_once{1, 0};
    ::setsockopt(client.descriptor(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  }
  expect_serving();
}

/// The time of a client, seen without waiting for it: the clock stands at 0 and leaps at one of the
/// server's looks at it. It looks as each transfer begins and before each of its waits; how many
/// waits a frame needs depends on how soon its bytes come.
class frame_time : public server {
 protected:
  frame_time() {
    looks_ = 0;
    leap_at_ = INT_MAX;
    muro::x_relative_time = [] { return ++looks_ >= leap_at_ ? leap_ms_.load() : 0; };
  }
  ~frame_time() override {
    server_.reset();
    muro::x_relative_time = nullptr;
  }
  /// At so many looks from now; on the server's thread, or before it looks.
  static void leap_in(int looks, long long to_ms) {
    leap_ms_ = to_ms;
    leap_at_ = looks_ + looks;
  }
  static void await_leap() {
    while (looks_ < leap_at_) std::this_thread::yield();
  }
  /// A reply that a client has to take piece by piece; the clock leaps at the first wait for it.
  void start_with_long_reply(long long to_ms) {
    start_with([to_ms](long, const std::string&) {
      leap_in(2, to_ms);
      return std::string(kMiB, 'r');
    });
  }

  static inline std::atomic<int> looks_{0};
  static inline std::atomic<int> leap_at_{INT_MAX};
  static inline std::atomic<long long> leap_ms_{0};
};

TEST_F(frame_time, request_has_thirty_seconds_to_its_last_byte) {
  leap_in(2, 29999);
  start();
  frame_client client = connect();
  client.send_bytes(frame("ab").substr(0, 1));
  await_leap();
  client.send_bytes(frame("ab").substr(1));
  EXPECT_EQ(client.receive_reply(), "<ab>");
}

TEST_F(frame_time, request_that_is_not_whole_after_thirty_seconds_is_dropped) {
  leap_in(2, 30000);
  start();
  frame_client client = connect();
  client.send_bytes(frame("ab").substr(0, 1));
  EXPECT_EQ(client.receive_all(), "");
}

TEST_F(frame_time, reply_has_thirty_seconds_of_its_own) {
  start_with([](long, const std::string&) {
    leap_in(1, 1000000);
    return std::string("late");
  });
  EXPECT_EQ(connect().ask("ab"), "late");
}

TEST_F(frame_time, reply_has_thirty_seconds_to_its_last_byte) {
  start_with_long_reply(29999);
  frame_client client = connect();
  client.send_frame("");
  await_leap();
  EXPECT_EQ(client.receive_all().size(), 4 + kMiB);
}

TEST_F(frame_time, reply_that_is_not_taken_after_thirty_seconds_is_dropped) {
  start_with_long_reply(30000);
  frame_client client = connect();
  client.send_frame("");
  await_leap();
  EXPECT_LT(client.receive_all().size(), kMiB);
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

}  // namespace
