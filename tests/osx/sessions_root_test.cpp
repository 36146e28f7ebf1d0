#include "osx/sessions.h"

#include "muro/core/exception.h"
#include "tests/osx/mac.h"
#include "tests/osx/system_calls.h"

namespace {

using test::lines;

class sessions : public test::mac {
 protected:
  void TearDown() override {
    if (!std::filesystem::exists("/dev/console")) test::write_file("/dev/console", "");
    EXPECT_EQ(::chown("/dev/console", 0, 0), 0);
    ::unsetenv("XDG_SESSION_ID");
    ::unsetenv("XDG_SESSION_TYPE");
    mac::TearDown();
  }
};

class sessions_before_10_10 : public sessions {
 protected:
  void SetUp() override {
    sessions::SetUp();
    set_release("10.9.5");
  }
};

void expect_no_console() {
  try {
    osx::get_console();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const muro::exception& e) {
    EXPECT_EQ(e.description(), ":Error in 'get_console'");
  }
}

}  // namespace

TEST_F(sessions_before_10_10, are_the_launchd_folders_by_owner) {
  REQUIRE_USERS();
  make_launchd_folder("501.abcd", 501);
  make_launchd_folder("b", 502);
  EXPECT_EQ(get_sessions(), (session_map{{501, "/tmp/launchd-501.abcd"}, {502, "/tmp/launchd-b"}}));
}

TEST_F(sessions_before_10_10, are_none_without_folders) {
  EXPECT_TRUE(get_sessions().empty());
}

TEST_F(sessions_before_10_10, the_last_folder_of_one_user_counts) {
  make_launchd_folder("c", 0);
  make_launchd_folder("a", 0);
  make_launchd_folder("b", 0);
  EXPECT_EQ(get_sessions(), (session_map{{0, "/tmp/launchd-c"}}));
}

TEST_F(sessions_before_10_10, what_is_no_folder_is_ignored) {
  test::write_file("/tmp/launchd-file", "");
  std::filesystem::create_symlink("/tmp/nowhere", "/tmp/launchd-dangling");
  make_launchd_folder("a", 0);
  EXPECT_EQ(get_sessions(), (session_map{{0, "/tmp/launchd-a"}}));
}

TEST_F(sessions_before_10_10, a_link_to_a_folder_counts_for_the_folders_owner) {
  REQUIRE_USERS();
  std::filesystem::create_directory("/stubs/elsewhere");
  ASSERT_EQ(::chown("/stubs/elsewhere", 502, 20), 0);
  std::filesystem::create_symlink("/stubs/elsewhere", "/tmp/launchd-link");
  EXPECT_EQ(get_sessions(), (session_map{{502, "/tmp/launchd-link"}}));
}

TEST_F(sessions_before_10_10, other_names_are_ignored) {
  std::filesystem::create_directory("/tmp/launchd");
  std::filesystem::create_directory("/tmp/xlaunchd-a");
  EXPECT_TRUE(get_sessions().empty());
}

TEST_F(sessions_before_10_10, login_records_do_not_matter) {
  add_login(100, "alice");
  EXPECT_TRUE(get_sessions().empty());
}

TEST_F(sessions, from_10_10_on_are_the_console_logins) {
  set_release("10.10");
  make_launchd_folder("a", 0);
  add_login(100, "alice");
  EXPECT_EQ(get_sessions(), (session_map{{100, "alice"}}));
}

TEST_F(sessions, later_than_10_10_are_the_console_logins) {
  set_release("14.5");
  add_login(100, "alice");
  EXPECT_EQ(get_sessions(), get_sessions_v2());
  EXPECT_EQ(get_sessions().size(), 1u);
}

TEST_F(sessions, only_user_processes_count) {
  add_login(100, "alice", "console", LOGIN_PROCESS);
  add_login(101, "bob", "console", DEAD_PROCESS);
  add_login(102, "carol", "console", BOOT_TIME);
  add_login(103, "dave", "console", USER_PROCESS);
  EXPECT_EQ(get_sessions_v2(), (session_map{{103, "dave"}}));
}

TEST_F(sessions, only_the_line_console_counts) {
  add_login(100, "alice", "ttys000");
  add_login(101, "bob", "console2");
  add_login(102, "carol", "consol");
  add_login(103, "dave", "");
  EXPECT_TRUE(get_sessions_v2().empty());
}

TEST_F(sessions, two_logins_of_one_user_are_two_sessions) {
  add_login(200, "alice");
  add_login(100, "alice");
  EXPECT_EQ(get_sessions_v2(), (session_map{{100, "alice"}, {200, "alice"}}));
}

TEST_F(sessions, the_later_record_of_one_process_counts) {
  add_login(100, "alice");
  add_login(100, "bob");
  EXPECT_EQ(get_sessions_v2(), (session_map{{100, "bob"}}));
}

TEST_F(sessions, a_name_that_fills_its_field_is_not_read_beyond_it) {
  const std::string longest(sizeof(utmpx::ut_user), 'u');
  add_login(100, longest);
  EXPECT_EQ(get_sessions_v2(), (session_map{{100, longest}}));
}

TEST_F(sessions, a_line_that_fills_its_field_is_not_read_beyond_it) {
  add_login(100, "console", std::string(sizeof(utmpx::ut_line), 'l'));
  EXPECT_TRUE(get_sessions_v2().empty());
}

TEST_F(sessions, are_none_without_a_database) {
  std::filesystem::remove("/var/run/utmp");
  EXPECT_TRUE(get_sessions_v2().empty());
}

TEST_F(sessions, reading_starts_where_the_cursor_stands_and_rewinds_afterwards) {
  add_login(100, "alice");
  add_login(101, "bob");
  ASSERT_NE(::getutxent(), nullptr);
  EXPECT_EQ(get_sessions_v2(), (session_map{{101, "bob"}}));
  EXPECT_EQ(get_sessions_v2().size(), 2u);
}

TEST_F(sessions, the_records_are_rewound_and_closed_in_this_order) {
  test::system_calls calls;
  test::watched = &calls;
  get_sessions_v2();
  test::watched = nullptr;
  EXPECT_EQ(calls.named, (lines{"setutxent", "endutxent"}));
}

TEST_F(sessions, reading_logs_nothing) {
  add_login(100, "alice");
  get_sessions();
  EXPECT_EQ(done(), lines{});
}

TEST_F(sessions, the_console_belongs_to_its_owner) {
  REQUIRE_USERS();
  ASSERT_EQ(::chown("/dev/console", 501, 20), 0);
  EXPECT_EQ(osx::get_console(), 501u);
  EXPECT_EQ(done(), (lines{"log get_console: console is 501"}));
}

TEST_F(sessions, only_root_may_ask_for_the_console) {
  REQUIRE_USERS();
  {
    const test::acting_as user(501);
    expect_no_console();
  }
  EXPECT_EQ(done(), (lines{"log get_console: need to be admin"}));
}

TEST_F(sessions, a_console_that_turns_up_is_waited_for) {
  std::filesystem::remove("/dev/console");
  int pauses = 0;
  at_pause = [&pauses] {
    if (++pauses == 100) test::write_file("/dev/console", "");
  };
  EXPECT_EQ(osx::get_console(), 0u);
  EXPECT_EQ(done("pause"), lines(100, "100000"));
}

TEST_F(sessions, the_console_is_given_up_after_101_attempts) {
  std::filesystem::remove("/dev/console");
  expect_no_console();
  EXPECT_EQ(done(), lines(101, "pause 100000"));
}

TEST_F(sessions, a_graphic_security_session_is_attached) {
  ::setenv("XDG_SESSION_ID", "7", 1);
  ::setenv("XDG_SESSION_TYPE", "x11", 1);
  EXPECT_TRUE(osx::attached_to_console());
  EXPECT_EQ(done(), (lines{"log attached_to_console: session 7 - 16 1"}));
}

TEST_F(sessions, another_security_session_is_not_attached) {
  EXPECT_FALSE(osx::attached_to_console());
  EXPECT_EQ(done(), (lines{"log attached_to_console: session 0 - 0 0"}));
}
