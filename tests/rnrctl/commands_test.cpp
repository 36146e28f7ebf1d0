#include "tools/rnrctl/commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>

#include "ipc/packet.h"
#include "muro/sys/files.h"
#include "tests/rnrctl/fake_helper.h"
#include "tests/support/temp_dir.h"
#include "tools/rnrctl/requests.h"

namespace {

using rnrctl::exit_status;
using test::fake_helper;
using testing::HasSubstr;
using testing::MatchesRegex;
using words = std::vector<std::string>;

class wrong_use : public testing::TestWithParam<words> {};

TEST_P(wrong_use, is_told_in_one_line_with_status_2) {
  std::ostringstream out, err;
  EXPECT_EQ(rnrctl::rnrctl_main(GetParam(), out, err), exit_status::wrong_use);
  EXPECT_EQ(out.str(), "");
  EXPECT_THAT(err.str(), MatchesRegex("rnrctl: [^\n]+ \\(see rnrctl --help\\)\n"));
}

INSTANTIATE_TEST_SUITE_P(
    words, wrong_use,
    testing::Values(words{}, words{"register"}, words{"resign"}, words{"dance"},
                    words{"register", "a.dat", "b.dat"}, words{"ping", "a.dat"},
                    words{"register", ""}, words{"ping", "--timeout", "0"},
                    words{"ping", "--timeout", "-1"}, words{"ping", "--timeout", "nan"},
                    words{"ping", "--timeout", "1e9"}, words{"ping", "--timeout", "soon"},
                    words{"ping", "--endpoint", ""}, words{"ping", "--endpoint", "a/b"},
                    words{"ping", "--loud"}, words{"register", "a.dat", "resign", "b.dat"}));

TEST(help, goes_to_the_output_with_every_status) {
  std::ostringstream out, err;
  EXPECT_EQ(rnrctl::rnrctl_main({"--help"}, out, err), exit_status::done);
  for (const char* text :
       {"register", "resign", "ping", "--endpoint", "--timeout", "--version", "\n  0  ", "\n  1  ",
        "\n  2  ", "\n  3  ", "\n  4  ", "\n  5  ", "\n  6  ", "\n  7  "}) {
    EXPECT_THAT(out.str(), HasSubstr(text));
  }
  EXPECT_EQ(err.str(), "");
}

TEST(help, of_a_command_tells_its_own_statuses_alone) {
  const auto help_of = [](const char* command) {
    std::ostringstream out, err;
    EXPECT_EQ(rnrctl::rnrctl_main({command, "--help"}, out, err), exit_status::done);
    return out.str();
  };
  EXPECT_THAT(help_of("register"), HasSubstr("restore file: its base name"));
  EXPECT_THAT(help_of("register"), HasSubstr("\n  7  "));
  EXPECT_THAT(help_of("ping"), HasSubstr("\n  5  time-out\n"));
  EXPECT_THAT(help_of("wait"), HasSubstr("5 not within --timeout"));
  EXPECT_THAT(help_of("doctor"), HasSubstr("12 errors"));
  for (const char* command : {"status", "sessions", "plan", "log", "explain", "bundle"})
    EXPECT_THAT(help_of(command), HasSubstr("\nExit status: 0 done, 1 any failure, 2 wrong use.\n"))
        << command;
}

TEST(wrong_command, is_named) {
  std::ostringstream out, err;
  EXPECT_EQ(rnrctl::rnrctl_main({"dance"}, out, err), exit_status::wrong_use);
  EXPECT_EQ(rnrctl::rnrctl_main({"sessions", "dance"}, out, err), exit_status::wrong_use);
  EXPECT_EQ(err.str(),
            "rnrctl: no such command: dance (see rnrctl --help)\n"
            "rnrctl: no such command: dance (see rnrctl --help)\n");
}

TEST(version, is_one_line) {
  std::ostringstream out, err;
  EXPECT_EQ(rnrctl::rnrctl_main({"--version"}, out, err), exit_status::done);
  EXPECT_THAT(out.str(), MatchesRegex("rnrctl [0-9.]+\n"));
}

TEST(absolute_path, puts_the_current_folder_before_a_relative_one) {
  const std::string here = muro::get_current_dir();
  EXPECT_EQ(rnrctl::absolute_path("/a/b.dat"), "/a/b.dat");
  EXPECT_EQ(rnrctl::absolute_path("b.dat"), here + "/b.dat");
  EXPECT_EQ(rnrctl::absolute_path("./b.dat"), here + "/b.dat");
  EXPECT_EQ(rnrctl::absolute_path("../b.dat"), here + "/../b.dat");
}

class commands : public testing::Test {
 protected:
  void SetUp() override { test::start_runtime(); }

  exit_status call(words given) {
    given.insert(given.end(), {"--endpoint", name});
    return rnrctl::rnrctl_main(given, out, err);
  }

  const std::string name = test::endpoint_name();
  test::temp_dir folder;
  std::ostringstream out, err;
};

void expect_request(std::string packet, const std::string& command, const std::string& argument) {
  std::string field;
  muro_packet<std::string>::pop(packet, field);
  EXPECT_EQ(field, command);
  muro_packet<std::string>::pop(packet, field);
  EXPECT_EQ(field, argument);
  EXPECT_EQ(packet, "");
}

TEST_F(commands, register_sends_the_file) {
  fake_helper helper(name, test::answer);
  test::write_file(folder / "abc.dat", "x");
  EXPECT_EQ(call({"register", "--no-verify", folder / "abc.dat"}), exit_status::done);
  expect_request(helper.request, "rnr_register", folder / "abc.dat");
  EXPECT_THAT(out.str(), MatchesRegex(name + " answered in [0-9]+ ms\n"));
  EXPECT_EQ(err.str(), "");
}

TEST_F(commands, register_keeps_the_name_of_a_link) {
  fake_helper helper(name, test::answer);
  test::write_file(folder / "target", "x");
  ASSERT_EQ(::symlink("target", (folder / "abc.dat").c_str()), 0);
  EXPECT_EQ(call({"register", "--no-verify", folder / "abc.dat"}), exit_status::done);
  expect_request(helper.request, "rnr_register", folder / "abc.dat");
}

TEST_F(commands, register_tells_when_the_helper_has_not_done_it) {
  fake_helper helper(name, test::answer);
  test::write_file(folder / "abc.dat", "x");
  EXPECT_EQ(call({"register", folder / "abc.dat"}), exit_status::not_done);
  EXPECT_THAT(err.str(),
              HasSubstr("the helper answered, but " + (folder / "abc.dat") + " is still there"));
}

TEST_F(commands, resign_does_not_need_the_file) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(call({"resign", "/nowhere/abc.dat"}), exit_status::done);
  expect_request(helper.request, "rnr_resign", "/nowhere/abc.dat");
}

TEST_F(commands, options_stand_before_or_after_the_command) {
  for (const words& given : {words{"--endpoint", name, "--timeout", "20", "ping"},
                             words{"ping", "--endpoint=" + name, "--timeout=20"}}) {
    fake_helper helper(name, test::answer);
    EXPECT_EQ(rnrctl::rnrctl_main(given, out, err), exit_status::done);
  }
}

TEST_F(commands, a_file_may_begin_with_a_hyphen) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(rnrctl::rnrctl_main({"resign", "--endpoint", name, "--", "-a.dat"}, out, err),
            exit_status::done);
  expect_request(helper.request, "rnr_resign", muro::get_current_dir() + "/-a.dat");
}

TEST_F(commands, explain_takes_its_message_in_one_word_or_several) {
  EXPECT_EQ(rnrctl::rnrctl_main({"explain", "Install", "agent", "failed"}, out, err),
            exit_status::done);
  EXPECT_THAT(out.str(), HasSubstr("main: The session's own helper"));
  EXPECT_EQ(rnrctl::rnrctl_main({"explain", "hello"}, out, err), exit_status::failed);
  EXPECT_EQ(err.str(), "rnrctl: nothing is known of: hello\n");
}

TEST_F(commands, ping_sends_a_command_that_changes_nothing) {
  fake_helper helper(name, test::answer);
  EXPECT_EQ(call({"ping"}), exit_status::done);
  expect_request(helper.request, "rnr_ping", "");
}

TEST_F(commands, register_of_a_missing_file_asks_nobody) {
  EXPECT_EQ(call({"register", folder / "abc.dat"}), exit_status::no_file);
  EXPECT_EQ(err.str(),
            "rnrctl: cannot read " + (folder / "abc.dat") + ": No such file or directory\n");
}

TEST_F(commands, register_of_what_is_no_file_asks_nobody) {
  ASSERT_EQ(::mkdir((folder / "abc.dat").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((folder / "fifo.dat").c_str(), 0600), 0);
  EXPECT_EQ(call({"register", folder / "abc.dat"}), exit_status::no_file);
  EXPECT_EQ(call({"register", folder / "fifo.dat"}), exit_status::no_file);
}

TEST_F(commands, a_name_without_an_id_is_wrong_use) {
  for (const char* file : {"/tmp/abc.txt", "/tmp/.dat", "/tmp/..dat", "/tmp/...dat", "/a.dat/"}) {
    EXPECT_EQ(call({"register", file}), exit_status::wrong_use) << file;
    EXPECT_EQ(call({"resign", file}), exit_status::wrong_use) << file;
  }
  EXPECT_THAT(err.str(), HasSubstr("rnrctl: /tmp/abc.txt names no session"));
}

TEST_F(commands, an_id_that_no_job_file_can_hold_is_wrong_use) {
  for (const std::string& file : {std::string("/tmp/a\x01"
                                              "b.dat"),
                                  std::string("/tmp/a\nb.dat"), std::string("/tmp/a\xff.dat"),
                                  "/tmp/" + std::string(230, 'a') + ".dat"}) {
    EXPECT_EQ(call({"register", file}), exit_status::wrong_use) << file;
    EXPECT_EQ(call({"resign", file}), exit_status::wrong_use) << file;
  }
  EXPECT_THAT(err.str(),
              HasSubstr("rnrctl: /tmp/a\\x01b.dat names a session by bytes that no job"));
  EXPECT_EQ(call({"resign",
                  "/tmp/Gr\xc3\xbc\xc3\x9f"
                  "e & <x>.dat"}),
            exit_status::no_endpoint);
}

TEST_F(commands, a_missing_endpoint_is_told_in_one_line) {
  EXPECT_EQ(call({"ping"}), exit_status::no_endpoint);
  EXPECT_EQ(err.str(),
            "rnrctl: no helper serves /tmp/" + name + ".ipc: No such file or directory\n");
}

TEST_F(commands, the_time_limit_of_the_words_holds) {
  fake_helper helper(name, [](fake_helper& self, int) { self.stopped(-1); });
  EXPECT_EQ(call({"ping", "--timeout", "0.05"}), exit_status::timed_out);
}

TEST_F(commands, a_refused_request_is_told) {
  fake_helper helper(name, [](fake_helper& self, int connection) {
    pipe_server::read_(connection, self.request);
  });
  EXPECT_EQ(call({"ping"}), exit_status::refused);
}

}  // namespace
