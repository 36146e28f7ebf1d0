#include "tools/rnrctl/client.h"

#include <gtest/gtest.h>

#include <vector>

#include "ipc/packet.h"
#include "tests/rnrctl/fake_helper.h"
#include "tests/support/stopwatch.h"

namespace {

using rnrctl::exit_status;
using test::fake_helper;

constexpr long long kPatient_ms = 30000;
constexpr long long kShort_ms = 150;

class client : public testing::Test {
 protected:
  void SetUp() override { test::start_runtime(); }

  std::string exchange(const std::string& packet, long long limit_ms = kPatient_ms) {
    return rnrctl::exchange(name, packet, limit_ms);
  }

  exit_status status_of_failure(long long limit_ms = kPatient_ms,
                                const std::string& packet = "packet") {
    try {
      exchange(packet, limit_ms);
    } catch (const rnrctl::failure& e) {
      line = e.what();
      return e.status();
    }
    ADD_FAILURE() << "no failure";
    return exit_status::done;
  }

  const std::string name = test::endpoint_name();
  std::string line;
};

void send_bytes(int connection, const std::string& bytes) {
  ASSERT_EQ(::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

TEST(request, holds_the_argument_below_the_command) {
  EXPECT_EQ(rnrctl::make_request("go", "/x"), std::string("/x\x02\x01go\x02\x01", 8));
}

TEST(request, holds_an_empty_argument) {
  std::string packet = rnrctl::make_request("go", ""), field;
  muro_packet<std::string>::pop(packet, field);
  EXPECT_EQ(field, "go");
  muro_packet<std::string>::pop(packet, field);
  EXPECT_EQ(field, "");
  EXPECT_EQ(packet, "");
}

TEST_F(client, sends_one_frame_and_gives_the_reply) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
    pipe_server::write_(connection, "reply");
  });
  EXPECT_EQ(exchange("request"), "reply");
  EXPECT_EQ(helper.request, "request");
}

TEST_F(client, takes_the_empty_reply) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(exchange(""), "");
}

TEST_F(client, gathers_a_reply_that_comes_in_pieces) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
    for (const char byte : std::string("\x03\0\0\0ab", 6)) {
      send_bytes(connection, std::string(1, byte));
      self.stopped(5);
    }
    send_bytes(connection, "c");
  });
  EXPECT_EQ(exchange("x"), "abc");
}

TEST_F(client, sends_a_request_larger_than_the_socket_holds) {
  fake_helper helper(name, test::answer);
  const std::string packet(0x100000, 'x');
  EXPECT_EQ(exchange(packet), "");
  EXPECT_EQ(helper.request, packet);
}

TEST_F(client, without_a_socket_file_there_is_no_endpoint) {
  EXPECT_EQ(status_of_failure(), exit_status::no_endpoint);
  EXPECT_EQ(line, "no helper serves /tmp/" + name + ".ipc: No such file or directory");
}

TEST_F(client, a_socket_file_left_behind_is_no_endpoint) {
  test::listen_at(name, 1);
  EXPECT_EQ(status_of_failure(), exit_status::no_endpoint);
  ::unlink(test::endpoint_path(name).c_str());
}

TEST_F(client, a_connection_closed_before_the_request_is_read_is_a_refusal) {
  fake_helper helper(name, [](fake_helper&, int) {});
  EXPECT_EQ(status_of_failure(), exit_status::refused);
}

TEST_F(client, a_connection_closed_after_the_request_is_a_refusal) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
  });
  EXPECT_EQ(status_of_failure(), exit_status::refused);
  EXPECT_EQ(line, "the helper refused the request: it closed the connection unanswered");
}

TEST_F(client, a_connection_closed_inside_the_reply_is_a_refusal) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
    send_bytes(connection, std::string("\x05\0\0\0ab", 6));
  });
  EXPECT_EQ(status_of_failure(), exit_status::refused);
}

TEST_F(client, a_reply_longer_than_a_frame_may_be_fails) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
    send_bytes(connection, std::string("\x01\0\x10\0", 4));
    self.stopped(-1);
  });
  EXPECT_EQ(status_of_failure(), exit_status::failed);
}

TEST_F(client, a_silent_helper_runs_into_the_time_limit) {
  fake_helper helper(name, [](fake_helper& self, int) { self.stopped(-1); });
  const test::stopwatch watch;
  EXPECT_EQ(status_of_failure(kShort_ms), exit_status::timed_out);
  EXPECT_GE(watch.ms(), kShort_ms - 1);  // the clocks' whole milliseconds
}

TEST_F(client, bytes_that_trickle_in_do_not_stretch_the_time_limit) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    send_bytes(connection, std::string("\0\0\x10\0", 4));
    do {
      ::send(connection, "x", 1, MSG_NOSIGNAL);
    } while (!self.stopped(10));
  });
  EXPECT_EQ(status_of_failure(kShort_ms), exit_status::timed_out);
}

TEST_F(client, a_helper_that_reads_nothing_runs_a_long_request_into_the_time_limit) {
  fake_helper helper(name, [](fake_helper& self, int) { self.stopped(-1); });
  EXPECT_EQ(status_of_failure(kShort_ms, std::string(0x100000, 'x')), exit_status::timed_out);
}

TEST_F(client, a_request_longer_than_a_frame_may_be_is_not_sent) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(status_of_failure(kPatient_ms, std::string(0x100001, 'x')), exit_status::failed);
  EXPECT_EQ(line, "the request is too long");
}

TEST_F(client, a_full_queue_of_waiting_clients_runs_into_the_time_limit) {
  const muro::unique_fd listening = test::listen_at(name, 0);
  sockaddr_un address{};
  socklen_t length = sizeof address;
  ::getsockname(listening.get(), reinterpret_cast<sockaddr*>(&address), &length);
  std::vector<muro::unique_fd> waiting;
  do {
    waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
  } while (::connect(waiting.back().get(), reinterpret_cast<sockaddr*>(&address), length) == 0);
  EXPECT_EQ(status_of_failure(kShort_ms), exit_status::timed_out);
  EXPECT_EQ(line.find("time-out while waiting for the helper's turn"), 0U);
  ::unlink(test::endpoint_path(name).c_str());
}

}  // namespace
