#include "osx/launchd_exec.h"

#include <algorithm>
#include <memory>

#include "muro/core/exception.h"
#include "netbuf/netbuf_imp.h"
#include "osx/launch_data.h"
#include "osx/launchd_wait.h"
#include "tests/osx/mac.h"
#include "tests/osx/scripted_launchd.h"
#include "tests/osx/system_calls.h"
#include "tests/support/descriptors.h"
#include "tests/support/signal_storm.h"
#include "tests/support/stepping_clock.h"
#include "tests/support/stopwatch.h"

namespace {

using test::lines;
using test::wire_answer;
using test::wire_message;
using test::wire_word;

[[maybe_unused]] const bool table_installed = netbuf_imp::install_builtin();

// Alice's launchd listens in her own folder, which only she (and root) may enter.
class launchd_socket : public test::mac {
 protected:
  void SetUp() override {
    mac::SetUp();
    set_release("10.9.5");
    folder_ = make_launchd_folder("alice", uid());
    path_ = folder_ + "/sock";
    launchd_ = std::make_unique<test::scripted_launchd>(path_, uid());
    watched_ = {};
    test::watched = &watched_;
    open_before_ = test::open_descriptors();
  }

  // Whatever happened, the process is root again and no socket is left open.
  void TearDown() override {
    test::watched = nullptr;
    EXPECT_EQ(::geteuid(), 0u);
    launchd_->requests();
    EXPECT_EQ(still_open(), std::set<int>{});
    launchd_.reset();
    mac::TearDown();
  }

  static uid_t uid() { return has_users() ? 501 : 0; }

  std::set<int> still_open() const {
    std::set<int> left;
    for (const int fd : test::open_descriptors()) {
      if (open_before_.count(fd) == 0) left.insert(fd);
    }
    return left;
  }

  std::string exchange(const std::string& body) { return exchange_at(path_, body); }

  static std::string exchange_at(const std::string& path, const std::string& body) {
    netbuf request;
    request.append(body);
    return send_to_sock(uid(), path, request).to_string();
  }

  std::string failure(const std::string& body = "body") { return failure_at(path_, body); }

  static std::string failure_at(const std::string& path, const std::string& body = "body") {
    try {
      exchange_at(path, body);
    } catch (const muro::exception& e) {
      return e.description();
    }
    return "nothing was thrown";
  }

  std::string folder_;
  std::string path_;
  std::unique_ptr<test::scripted_launchd> launchd_;
  test::system_calls watched_;
  std::set<int> open_before_;
};

constexpr char kBadReply[] = ":Error in 'send_to_sock'";
constexpr char kEnd[] =
    ":Error from 'recvmsg' (called in 'send_to_sock'): [while receiving from launchd] 0, Success";

std::string body_of(std::size_t size) {
  return std::string(size, 'b');
}

}  // namespace

TEST_F(launchd_socket, a_message_is_magic_length_and_body) {
  exchange("request");
  const auto seen = launchd_->requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].bytes, "\x41\x9A\xB3\x66\x23\xA0\xFE\xD2" + wire_word(16 + 7) + "request");
}

TEST_F(launchd_socket, header_and_body_leave_in_one_call_without_control_data) {
  exchange("request");
  EXPECT_EQ(watched_.sent, (std::vector<std::vector<std::size_t>>{{16, 7}}));
  EXPECT_FALSE(watched_.sent_control);
}

TEST_F(launchd_socket, the_exchange_blocks_and_no_program_inherits_its_socket) {
  exchange("request");
  EXPECT_TRUE(watched_.sent_on_plain_socket);
}

TEST_F(launchd_socket, the_path_is_logged) {
  exchange("request");
  EXPECT_EQ(done(), (lines{"log send_to_sock: rpc to " + path_}));
}

TEST_F(launchd_socket, the_connection_is_the_users_and_root_is_back_afterwards) {
  REQUIRE_USERS();
  exchange("request");
  EXPECT_EQ(::geteuid(), 0u);
  EXPECT_EQ(watched_.connect_users, std::vector<unsigned>{501});
  EXPECT_EQ(launchd_->requests().at(0).peer, 501u);
}

TEST_F(launchd_socket, the_address_has_its_full_size_of_106_bytes) {
  exchange("request");
  EXPECT_EQ(watched_.connect_lengths, std::vector<socklen_t>{106});
}

TEST_F(launchd_socket, the_reply_comes_without_its_header_after_one_receive) {
  launchd_->reply(wire_message(40, body_of(24)));
  EXPECT_EQ(exchange("request"), body_of(24));
  EXPECT_EQ(watched_.received_into, std::vector<std::size_t>{8192});
}

TEST_F(launchd_socket, a_reply_in_two_parts_is_put_together) {
  const std::string whole = wire_message(40, body_of(24));
  launchd_->reply_in_pieces({whole.substr(0, 10), whole.substr(10)});
  EXPECT_EQ(exchange("request"), body_of(24));
  EXPECT_EQ(done(),
            (lines{"log send_to_sock: rpc to " + path_, "log send_to_sock: got 10 - retrying"}));
}

TEST_F(launchd_socket, the_count_of_the_last_receive_is_logged) {
  const std::string whole = wire_message(40, body_of(24));
  launchd_->reply_in_pieces({whole.substr(0, 3), whole.substr(3, 5), whole.substr(8)});
  exchange("request");
  EXPECT_EQ(done(),
            (lines{"log send_to_sock: rpc to " + path_, "log send_to_sock: got 3 - retrying",
                   "log send_to_sock: got 5 - retrying"}));
}

TEST_F(launchd_socket, a_reply_shorter_than_declared_is_returned_as_it_is) {
  launchd_->reply_in_pieces({wire_message(1000, body_of(24)), body_of(960)});
  EXPECT_EQ(exchange("request"), body_of(24));
}

TEST_F(launchd_socket, a_header_alone_is_a_whole_reply) {
  launchd_->reply_in_pieces({wire_message(40, ""), body_of(24)});
  EXPECT_EQ(exchange("request"), "");
}

TEST_F(launchd_socket, a_reply_longer_than_declared_is_read_on) {
  launchd_->reply_and_close({wire_message(40, body_of(34))});
  EXPECT_EQ(failure(), kEnd);
  EXPECT_EQ(done(),
            (lines{"log send_to_sock: rpc to " + path_, "log send_to_sock: got 50 - retrying"}));
}

TEST_F(launchd_socket, a_reply_of_several_receives_is_read_on_only_while_it_is_too_long) {
  launchd_->reply_and_close({wire_message(20, body_of(10)), body_of(8)});
  EXPECT_EQ(failure(), kEnd);
  EXPECT_EQ(done("log").size(), 3u);
}

TEST_F(launchd_socket, another_magic_is_a_bad_reply) {
  launchd_->reply(wire_message(40, body_of(24), test::kWireMagic ^ 1));
  EXPECT_EQ(failure(), kBadReply);
}

TEST_F(launchd_socket, a_declared_length_of_16_or_less_is_a_bad_reply) {
  for (const unsigned long long declared : {0, 15, 16}) {
    launchd_->reply(wire_message(declared, body_of(24)));
    EXPECT_EQ(failure(), kBadReply) << declared;
  }
}

TEST_F(launchd_socket, a_declared_length_of_17_is_enough) {
  launchd_->reply(wire_message(17, "b"));
  EXPECT_EQ(exchange("request"), "b");
}

TEST_F(launchd_socket, any_declared_length_beyond_the_bytes_held_is_taken) {
  launchd_->reply(wire_message(0xFFFFFFFFFFFFFFFF, body_of(24)));
  EXPECT_EQ(exchange("request"), body_of(24));
}

TEST_F(launchd_socket, a_reply_that_never_ends_is_bad_at_16_mib) {
  launchd_->reply_without_end(wire_message(17, body_of(8192 - 16)), body_of(8192));
  EXPECT_EQ(failure(), kBadReply);
  EXPECT_EQ(watched_.received_into.size(), 16u * 1024 * 1024 / 8192);
}

TEST_F(launchd_socket, a_peer_that_closes_without_an_answer_is_a_failure_to_receive) {
  launchd_->close_without_reply();
  watched_.errno_after_success = EXDEV;
  EXPECT_EQ(failure(), kEnd);
}

TEST_F(launchd_socket, a_peer_that_closes_within_the_header_is_a_failure_to_receive) {
  launchd_->reply_and_close({wire_message(40, "").substr(0, 15)});
  EXPECT_EQ(failure(), kEnd);
}

TEST_F(launchd_socket, a_reply_with_a_descriptor_is_a_failure_to_receive) {
  launchd_->reply_with_descriptor(wire_answer(0));
  EXPECT_EQ(failure(), kEnd);
}

namespace {

// The time of an exchange as short as a test wants it.
class exchange_limit {
 public:
  explicit exchange_limit(long long ms) { osx_priv::exchange_limit_ms = ms; }
  ~exchange_limit() { osx_priv::exchange_limit_ms = osx_priv::kExchangeLimit_ms; }
};

constexpr char kTimeOut[] =
    ":Error from 'recvmsg' (called in 'send_to_sock'): [while receiving from launchd] 110, "
    "Connection timed out";

}  // namespace

TEST_F(launchd_socket, an_exchange_has_ten_seconds) {
  EXPECT_EQ(osx_priv::exchange_limit_ms, 10000);
}

TEST_F(launchd_socket, a_launchd_that_does_not_answer_is_a_failure_to_receive) {
  launchd_->reply_in_pieces({});
  const exchange_limit limit(60);
  const test::stopwatch watch;
  EXPECT_EQ(failure(), kTimeOut);
  EXPECT_GE(watch.ms(), 60);
  EXPECT_LT(watch.ms(), 9000);
}

TEST_F(launchd_socket, a_launchd_that_stops_within_its_answer_is_a_failure_to_receive) {
  launchd_->reply_in_pieces({"1", "2", "3"});
  const exchange_limit limit(60);
  EXPECT_EQ(failure(), kTimeOut);
}

TEST_F(launchd_socket, an_answer_that_trickles_gets_no_more_time_than_none) {
  launchd_->reply_without_end(wire_message(17, "22"), "3");
  const exchange_limit limit(150);
  const test::stopwatch watch;
  EXPECT_EQ(failure(), kTimeOut);
  EXPECT_GE(watch.ms(), 150);
  EXPECT_LT(watch.ms(), 9000);
}

TEST_F(launchd_socket, signals_and_a_wall_clock_that_is_set_do_not_change_the_time) {
  launchd_->reply_in_pieces({});
  const exchange_limit limit(100);
  const test::stepping_clock clock(-3600);
  const test::signal_storm storm;
  const test::stopwatch watch;
  EXPECT_EQ(failure(), kTimeOut);
  EXPECT_GE(watch.ms(), 100);
  EXPECT_LT(watch.ms(), 9000);
}

TEST_F(launchd_socket, a_launchd_that_neither_accepts_nor_reads_does_not_hold_the_caller) {
  const std::string path = folder_ + "/deaf";
  const muro::unique_fd deaf(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path);
  ASSERT_EQ(::bind(deaf.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(deaf.get(), 8), 0);
  ASSERT_EQ(::chown(path.c_str(), uid(), 20), 0);
  open_before_.insert(deaf.get());
  const exchange_limit limit(60);
  const test::stopwatch watch;
  EXPECT_EQ(failure_at(path), kTimeOut);
  // More than any socket's buffer takes.
  EXPECT_EQ(failure_at(path, std::string(8 << 20, 'b')), kTimeOut);
  EXPECT_LT(watch.ms(), 9000);
}

TEST_F(launchd_socket, no_listener_is_a_failure_to_connect) {
  EXPECT_EQ(failure_at(folder_ + "/none"),
            ":Error from 'connect' (called in 'send_to_sock'): [cannot connect] "
            "2, No such file or directory");
}

TEST_F(launchd_socket, another_users_folder_is_closed_to_the_connection) {
  REQUIRE_USERS();
  netbuf body;
  body.append("body");
  try {
    send_to_sock(502, path_, body);
    FAIL() << "nothing was thrown";
  } catch (const muro::exception& e) {
    EXPECT_EQ(e.description(),
              ":Error from 'connect' (called in 'send_to_sock'): [cannot connect] "
              "13, Permission denied");
  }
  EXPECT_EQ(::geteuid(), 0u);
  EXPECT_TRUE(launchd_->requests().empty());
}

TEST_F(launchd_socket, a_listener_with_a_full_queue_is_a_failure_and_not_a_wait) {
  const std::string path = folder_ + "/busy";
  const muro::unique_fd busy(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(busy.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::chown(path.c_str(), uid(), 20), 0);
  ASSERT_EQ(::listen(busy.get(), 0), 0);
  const muro::unique_fd waiting(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::connect(waiting.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(failure_at(path),
            ":Error from 'connect' (called in 'send_to_sock'): [cannot connect] "
            "11, Resource temporarily unavailable");
}

TEST_F(launchd_socket, no_socket_is_a_failure_of_the_function) {
  watched_.socket_error = EMFILE;
  EXPECT_EQ(failure(), ":Error in 'send_to_sock'");
  EXPECT_EQ(::geteuid(), 0u);
  EXPECT_TRUE(watched_.connect_lengths.empty());
}

TEST_F(launchd_socket, a_failing_send_names_its_call) {
  watched_.sendmsg_error = EPIPE;
  EXPECT_EQ(failure(),
            ":Error from 'sendmsg' (called in 'send_to_sock'): [while sending to launchd] "
            "32, Broken pipe");
}

TEST_F(launchd_socket, a_path_with_a_zero_byte_is_refused) {
  EXPECT_EQ(failure_at(path_ + std::string("\0/elsewhere", 11)), kBadReply);
  EXPECT_TRUE(watched_.connect_users.empty());
}

TEST_F(launchd_socket, a_path_of_103_bytes_fits) {
  const std::string path = folder_ + "/" + std::string(103 - folder_.size() - 1, 's');
  test::scripted_launchd other(path, uid());
  other.reply(wire_message(40, body_of(24)));
  EXPECT_EQ(exchange_at(path, "request"), body_of(24));
}

TEST_F(launchd_socket, a_path_of_104_bytes_is_refused) {
  const std::string path = folder_ + "/" + std::string(104 - folder_.size() - 1, 's');
  EXPECT_EQ(failure_at(path), ":Error in 'send_to_sock': socket path too long");
  EXPECT_TRUE(watched_.connect_lengths.empty());
}

TEST_F(launchd_socket, nothing_is_connected_when_the_users_rights_cannot_be_taken) {
  REQUIRE_USERS();
  std::string thrown;
  {
    const test::acting_as bob(502);
    thrown = failure();
    EXPECT_EQ(::geteuid(), 502u);
  }
  EXPECT_EQ(thrown, ":Error from 'seteuid' (called in 'send_to_sock'): 1, Operation not permitted");
  EXPECT_TRUE(watched_.connect_lengths.empty());
}

TEST_F(launchd_socket, a_number_that_is_no_user_id_is_not_cut_down_to_one) {
  netbuf body;
  body.append("body");
  for (const unsigned long long uid : {0x100000000ULL, 0xFFFFFFFFULL, ~0ULL}) {
    EXPECT_THROW(send_to_sock(uid, path_, body), muro::exception);
  }
  EXPECT_TRUE(watched_.connect_lengths.empty());
}

namespace {
class launchd_request : public launchd_socket {
 protected:
  std::string call() {
    try {
      netbuf body;
      body.append("body");
      launchd_call(uid(), path_, body);
    } catch (const muro::exception& e) {
      return e.description();
    }
    return "answered";
  }
};

}  // namespace

TEST_F(launchd_request, any_error_number_is_an_answer) {
  for (const unsigned long long number : {0ULL, 3ULL, ~0ULL}) {
    launchd_->reply(wire_answer(number));
    EXPECT_EQ(call(), "answered");
  }
}

TEST_F(launchd_request, the_head_of_the_answer_is_logged_and_a_pause_follows) {
  launchd_->reply(wire_message(40, wire_word(9) + wire_word(1) + wire_word(~0ULL)));
  call();
  EXPECT_EQ(done(), (lines{"log send_to_sock: rpc to " + path_,
                           "log launchd_call: received 9-1-18446744073709551615", "pause 100000"}));
}

TEST_F(launchd_request, another_item_is_no_answer) {
  launchd_->reply(wire_answer(0, 1));
  EXPECT_EQ(call(), ":Error in 'launchd_call'");
  EXPECT_EQ(done("log").back(), "launchd_call: received 1-0-0");
  EXPECT_TRUE(done("pause").empty());
}

TEST_F(launchd_request, a_body_of_23_bytes_has_no_head) {
  launchd_->reply(wire_message(39, body_of(23)));
  EXPECT_EQ(call(), ":Error in 'pop'");
}

TEST_F(launchd_request, a_failing_exchange_passes_on) {
  launchd_->close_without_reply();
  EXPECT_EQ(call(), kEnd);
}

namespace {
class launchd_job : public launchd_socket {
 protected:
  static constexpr char kCommand[] = "/bin/launchctl";

  static std::string text(const std::string& value) {
    return launch_data::add_string(value).to_string();
  }

  // The bodies that launchd received.
  lines bodies() {
    lines found;
    for (const test::seen_request& request : launchd_->requests()) {
      EXPECT_EQ(request.bytes.substr(0, 16),
                wire_word(test::kWireMagic) + wire_word(request.bytes.size()));
      found.push_back(request.bytes.substr(16));
    }
    return found;
  }

  static std::string remove_body() {
    return wire_word(1) + wire_word(0) + wire_word(2) + std::string(16, '\0') + text("RemoveJob") +
           text("norvane.jobsubmit");
  }

  // The submission of `command` spelt out item by item.
  static std::string submit_body(const lines& command) {
    const std::string no = wire_word(6) + wire_word(0) + wire_word(0);
    const std::string yes = wire_word(6) + wire_word(0) + wire_word(1);
    std::string array = wire_word(2) + wire_word(0) + wire_word(command.size()) +
                        std::string(8 * command.size(), '\0');
    for (const std::string& word : command) array += text(word);
    return wire_word(1) + wire_word(0) + wire_word(2) + std::string(16, '\0') + text("SubmitJob") +
           wire_word(1) + wire_word(0) + wire_word(10) + std::string(80, '\0') + text("KeepAlive") +
           no + text("Label") + text("norvane.jobsubmit") + text("OnDemand") + yes +
           text("ProgramArguments") + array + text("RunAtLoad") + yes;
  }

  lines rpc(const std::string& result) const {
    return {"log send_to_sock: rpc to " + path_, "log launchd_call: received " + result};
  }
};

lines operator+(lines left, const lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace

TEST_F(launchd_job, is_removed_submitted_and_removed_again) {
  osx::launchd_exec(uid(), {kCommand, "load", "-S", "Aqua", "/x.plist"});
  EXPECT_EQ(bodies(),
            (lines{remove_body(), submit_body({kCommand, "load", "-S", "Aqua", "/x.plist"}),
                   remove_body()}));
}

TEST_F(launchd_job, each_request_is_told_and_followed_by_a_pause) {
  launchd_->reply(wire_answer(3));
  osx::launchd_exec(uid(), {kCommand});
  const lines expected = lines{"log launchd_exec: preparing ..."} + rpc("9-0-3") +
                         lines{"pause 100000", "log launchd_exec: submiting ..."} + rpc("9-0-0") +
                         lines{"pause 100000", "log launchd_exec: cleaning ..."} + rpc("9-0-0") +
                         lines{"pause 100000"};
  EXPECT_EQ(done(), expected);
}

TEST_F(launchd_job, a_user_without_a_session_is_told_and_nothing_is_sent) {
  osx::launchd_exec(777, {kCommand});
  EXPECT_EQ(done(), (lines{"log launchd_exec: session not found"}));
  EXPECT_TRUE(launchd_->requests().empty());
}

TEST_F(launchd_job, a_number_beyond_user_ids_has_no_session) {
  osx::launchd_exec(0x100000000ULL + uid(), {kCommand});
  EXPECT_EQ(done(), (lines{"log launchd_exec: session not found"}));
}

TEST_F(launchd_job, a_failing_first_removal_is_ignored) {
  launchd_->close_without_reply();
  osx::launchd_exec(uid(), {kCommand});
  EXPECT_EQ(bodies(), (lines{remove_body(), submit_body({kCommand}), remove_body()}));
}

TEST_F(launchd_job, a_failing_submission_is_told_and_cleaned_up) {
  launchd_->reply(wire_answer(0));
  launchd_->reply(wire_answer(0, 1));
  osx::launchd_exec(uid(), {kCommand});
  EXPECT_EQ(done("log")[6], "launchd_exec: err :Error in 'launchd_call'");
  EXPECT_EQ(done("log")[7], "launchd_exec: cleaning ...");
  EXPECT_EQ(bodies().size(), 3u);
}

TEST_F(launchd_job, a_failing_last_removal_is_ignored) {
  launchd_->reply(wire_answer(0));
  launchd_->reply(wire_answer(0));
  launchd_->close_without_reply();
  osx::launchd_exec(uid(), {kCommand});
  EXPECT_EQ(bodies().size(), 3u);
}

TEST_F(launchd_job, a_launchd_that_is_gone_fails_the_submission_alone) {
  std::filesystem::remove(path_);
  osx::launchd_exec(uid(), {kCommand});
  EXPECT_EQ(done("log")[4],
            "launchd_exec: err :Error from 'connect' (called in 'send_to_sock'): "
            "[cannot connect] 2, No such file or directory");
}

TEST_F(launchd_job, every_exception_of_a_removal_is_ignored) {
  int pauses = 0;
  at_pause = [&pauses] {
    if (++pauses != 2) throw 1;
  };
  osx::launchd_exec(uid(), {kCommand});
  EXPECT_EQ(bodies().size(), 3u);
}

TEST_F(launchd_job, a_launchd_that_is_silent_fails_each_exchange_and_all_go_on) {
  for (int i = 0; i < 3; ++i) launchd_->reply_in_pieces({});
  const exchange_limit limit(60);
  osx::launchd_exec(uid(), {"/bin/true"});
  const lines told = done("log");
  EXPECT_EQ(told.back(), "send_to_sock: rpc to " + path_);
  EXPECT_EQ(std::count(told.begin(), told.end(), std::string("launchd_exec: err ") + kTimeOut), 1);
  EXPECT_TRUE(done("pause").empty());
  EXPECT_EQ(launchd_->requests().size(), 3u);
}

TEST_F(launchd_job, another_exception_of_the_submission_passes_on) {
  int pauses = 0;
  at_pause = [&pauses] {
    if (++pauses == 2) throw 1;
  };
  EXPECT_THROW(osx::launchd_exec(uid(), {kCommand}), int);
  EXPECT_EQ(bodies().size(), 2u);
}

TEST_F(launchd_job, an_empty_command_is_an_empty_array) {
  osx::launchd_exec(uid(), {});
  EXPECT_EQ(bodies().at(1), submit_body({}));
}
