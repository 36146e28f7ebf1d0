#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "client/korvel_rnr.h"
#include "tests/rnrctl/fake_helper.h"
#include "tests/support/temp_dir.h"

namespace {

using test::fake_helper;

constexpr int kPatient_ms = 30000;
constexpr int kShort_ms = 150;

class client_library : public testing::Test {
 protected:
  void SetUp() override { test::start_runtime(); }

  std::string restore_file() const {
    const std::string path = folder.path() + "/abc.dat";
    test::write_file(path, "session");
    return path;
  }

  const std::string name = test::endpoint_name();
  const test::temp_dir folder;
};

std::string request(const std::string& argument, const char* command) {
  std::string packet(
      korvel_rnr_write_request(nullptr, 0, argument.data(), argument.size(), command), '\0');
  korvel_rnr_write_request(packet.data(), packet.size(), argument.data(), argument.size(), command);
  return packet;
}

TEST_F(client_library, registers_a_restore_file) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(korvel_rnr_register(name.c_str(), restore_file().c_str(), kPatient_ms),
            KORVEL_RNR_DONE);
  EXPECT_EQ(helper.request, request(restore_file(), "rnr_register"));
}

TEST_F(client_library, resigns_a_session_whose_file_is_gone) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(korvel_rnr_resign(name.c_str(), "/gone/abc.dat", kPatient_ms), KORVEL_RNR_DONE);
  EXPECT_EQ(helper.request, request("/gone/abc.dat", "rnr_resign"));
}

TEST_F(client_library, pings_with_a_command_that_changes_nothing) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(korvel_rnr_ping(name.c_str(), kPatient_ms), KORVEL_RNR_DONE);
  EXPECT_EQ(helper.request, request("", "rnr_ping"));
}

TEST_F(client_library, gives_as_much_of_a_reply_as_there_is_room_for) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
    pipe_server::write_(connection, std::string(10000, 'r'));
  });
  char reply[4] = "...";
  std::size_t length = 0;
  EXPECT_EQ(korvel_rnr_exchange(name.c_str(), "x", 1, reply, 2, &length, kPatient_ms),
            KORVEL_RNR_DONE);
  EXPECT_STREQ(reply, "rr.");
  EXPECT_EQ(length, 10000U);
}

TEST_F(client_library, sends_nothing_for_a_file_that_names_no_session) {
  for (const char* const file : {"/tmp/abc", "/tmp/.dat", "/tmp/..dat", "/tmp/...dat", "abc.dat"}) {
    EXPECT_EQ(korvel_rnr_register(name.c_str(), file, kPatient_ms), KORVEL_RNR_WRONG_USE) << file;
    EXPECT_EQ(korvel_rnr_resign(name.c_str(), file, kPatient_ms), KORVEL_RNR_WRONG_USE) << file;
  }
  EXPECT_EQ(korvel_rnr_register(name.c_str(), nullptr, kPatient_ms), KORVEL_RNR_WRONG_USE);
}

TEST_F(client_library, wants_an_endpoint_and_a_time_limit) {
  const std::string file = restore_file();
  for (const char* const endpoint : {static_cast<const char*>(nullptr), "", "a/b"}) {
    EXPECT_EQ(korvel_rnr_register(endpoint, file.c_str(), kPatient_ms), KORVEL_RNR_WRONG_USE);
    EXPECT_EQ(korvel_rnr_ping(endpoint, kPatient_ms), KORVEL_RNR_WRONG_USE);
  }
  EXPECT_EQ(korvel_rnr_register(name.c_str(), file.c_str(), 0), KORVEL_RNR_WRONG_USE);
  EXPECT_EQ(korvel_rnr_ping(name.c_str(), -1), KORVEL_RNR_WRONG_USE);
}

TEST_F(client_library, a_restore_file_must_be_a_regular_file_that_can_be_read) {
  const std::string missing = folder.path() + "/abc.dat";
  EXPECT_EQ(korvel_rnr_register(name.c_str(), missing.c_str(), kPatient_ms), KORVEL_RNR_NO_FILE);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(::mkfifo(missing.c_str(), 0600), 0);
  EXPECT_EQ(korvel_rnr_register(name.c_str(), missing.c_str(), kPatient_ms), KORVEL_RNR_NO_FILE);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(client_library, tells_why_nobody_answers) {
  EXPECT_EQ(korvel_rnr_ping(name.c_str(), kPatient_ms), KORVEL_RNR_NO_ENDPOINT);
  EXPECT_EQ(errno, ENOENT);
  test::listen_at(name, 1);  // closed at once: the file of a helper that has ended
  EXPECT_EQ(korvel_rnr_ping(name.c_str(), kPatient_ms), KORVEL_RNR_NO_ENDPOINT);
  EXPECT_EQ(errno, ECONNREFUSED);
  ::unlink(test::endpoint_path(name).c_str());
}

TEST_F(client_library, a_closed_connection_is_a_refusal) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
  });
  EXPECT_EQ(korvel_rnr_ping(name.c_str(), kPatient_ms), KORVEL_RNR_REFUSED);
}

TEST_F(client_library, a_silent_helper_runs_into_the_time_limit) {
  fake_helper helper(name, [](fake_helper& self, int) { self.stopped(-1); });
  EXPECT_EQ(korvel_rnr_ping(name.c_str(), kShort_ms), KORVEL_RNR_TIMED_OUT);
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(client_library, a_packet_longer_than_a_frame_may_be_is_not_sent) {
  const std::string packet(KORVEL_RNR_LONGEST_PACKET + 1, 'x');
  EXPECT_EQ(korvel_rnr_exchange(name.c_str(), packet.data(), packet.size(), nullptr, 0, nullptr,
                                kPatient_ms),
            KORVEL_RNR_FAILED);
  EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(client_library, leaves_no_descriptor_open) {
  const int before = ::dup(0);
  ::close(before);
  korvel_rnr_ping(name.c_str(), kShort_ms);
  {
    fake_helper helper(name, test::answer);
    korvel_rnr_ping(name.c_str(), kPatient_ms);
  }
  const int after = ::dup(0);
  ::close(after);
  EXPECT_EQ(after, before);
}

TEST(request_writer, writes_nothing_without_room) {
  char packet[] = "....";
  EXPECT_EQ(korvel_rnr_write_request(packet, 3, "y", 1, "x"), 6U);
  EXPECT_STREQ(packet, "....");
}

TEST(session_id, needs_room_for_its_zero_byte) {
  char id[8] = "old";
  EXPECT_EQ(korvel_rnr_session_id(id, 3, "/tmp/abc.dat"), 0U);
  EXPECT_STREQ(id, "");
  EXPECT_EQ(korvel_rnr_session_id(id, 4, "/tmp/abc.dat"), 3U);
  EXPECT_STREQ(id, "abc");
  EXPECT_EQ(korvel_rnr_session_id(id, 0, "/tmp/abc.dat"), 0U);
}

TEST(status_text, tells_every_status_in_words_of_its_own) {
  std::vector<std::string> texts;
  for (int status = KORVEL_RNR_DONE; status <= KORVEL_RNR_NO_FILE; ++status) {
    const std::string text = korvel_rnr_status_text(static_cast<korvel_rnr_status>(status));
    EXPECT_EQ(std::count(texts.begin(), texts.end(), text), 0);
    texts.push_back(text);
  }
  EXPECT_STREQ(korvel_rnr_status_text(static_cast<korvel_rnr_status>(7)), "unknown status");
}

int run_example(const std::string& words) {
  const int status =
      std::system((std::string(KORVEL_EXAMPLE) + " " + words + " 2>/dev/null").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(example, ends_with_the_status_of_its_call) {
  EXPECT_EQ(run_example(""), KORVEL_RNR_WRONG_USE);
  EXPECT_EQ(run_example("/nowhere/abc"), KORVEL_RNR_WRONG_USE);
  EXPECT_EQ(run_example("/nowhere/abc.dat"), KORVEL_RNR_NO_FILE);
}

}  // namespace
