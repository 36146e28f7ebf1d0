#include "osx/agent_start.h"

#include <memory>

#include "muro/core/exception.h"
#include "netbuf/netbuf_imp.h"
#include "tests/osx/mac.h"
#include "tests/osx/scripted_launchd.h"
#include "tests/support/broken_pipes.h"

namespace {

using test::lines;

[[maybe_unused]] const bool table_installed = netbuf_imp::install_builtin();

constexpr char kLabel[] = "com.example.agent";
constexpr char kPath[] = "/Library/LaunchAgents/com.example.agent.plist";

class agent_start : public test::mac {
 protected:
  void SetUp() override {
    mac::SetUp();
    record("/bin/launchctl");
  }
};

class agent_start_before_10_10 : public agent_start {
 protected:
  void SetUp() override {
    agent_start::SetUp();
    set_release("10.9.5");
  }

  // The route through the user's launchd, seen from outside: a user who has none there.
  static lines socket_route() { return {"log launchd_exec: session not found"}; }
};

class agent_start_on_10_10 : public agent_start {
 protected:
  void SetUp() override {
    agent_start::SetUp();
    set_release("10.10.5");
    record("/usr/bin/sudo");
  }
};

class agent_start_from_10_11 : public agent_start {
 protected:
  void SetUp() override {
    agent_start::SetUp();
    set_release("10.11.6");
  }

  // Puts an `id` in front of the machine's own.
  void answer_id(const std::string& then) { record("/usr/bin/id", then); }
};

std::string update(const std::string& rest) {
  return "log launchd_agent_start: agent in " + rest;
}

lines joined(std::initializer_list<lines> parts) {
  lines whole;
  for (const lines& part : parts) whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

}  // namespace

TEST_F(agent_start_before_10_10, a_console_user_is_loaded_by_sudo_and_then_through_launchd) {
  record("/usr/bin/sudo");
  osx::launchd_agent_start(501, kLabel, true, true);
  EXPECT_EQ(done(),
            joined({{update("501 update (start=1) for com.example.agent 1"),
                     "log launchd_agent_start: trying in session",
                     "run /usr/bin/sudo|-u|#501|/bin/launchctl|load|-S|Aqua|" + std::string(kPath),
                     update("501 update (start=1) for com.example.agent 0")},
                    socket_route()}));
}

TEST_F(agent_start_before_10_10, a_console_user_is_unloaded_and_removed_by_sudo) {
  record("/usr/bin/sudo");
  osx::launchd_agent_start(501, kLabel, false, true);
  EXPECT_EQ(done(),
            (lines{update("501 update (start=0) for com.example.agent 1"),
                   "log launchd_agent_start: trying in session",
                   "run /usr/bin/sudo|-u|#501|/bin/launchctl|unload|-S|Aqua|" + std::string(kPath),
                   "log launchd_agent_start: calling remove",
                   "run /usr/bin/sudo|-u|#501|/bin/launchctl|remove|com.example.agent"}));
}

TEST_F(agent_start_before_10_10, a_real_sudo_runs_launchctl_as_the_console_user) {
  REQUIRE_USERS();
  osx::launchd_agent_start(501, kLabel, false, true);
  EXPECT_EQ(done("run"), (lines{"/bin/launchctl|unload|-S|Aqua|" + std::string(kPath),
                                "/bin/launchctl|remove|com.example.agent"}));
  EXPECT_EQ(user_of_run(0), 501);
  EXPECT_EQ(user_of_run(1), 501);
}

TEST_F(agent_start_before_10_10, other_users_are_reached_through_launchd_alone) {
  record("/usr/bin/sudo");
  osx::launchd_agent_start(502, kLabel, true, false);
  osx::launchd_agent_start(502, kLabel, false, false);
  EXPECT_EQ(done(), joined({{update("502 update (start=1) for com.example.agent 0")},
                            socket_route(),
                            {update("502 update (start=0) for com.example.agent 0")},
                            socket_route()}));
}

TEST_F(agent_start_before_10_10, the_user_id_is_unsigned) {
  record("/usr/bin/sudo");
  osx::launchd_agent_start(4294967294, kLabel, false, true);
  EXPECT_EQ(done("run").back(),
            "/usr/bin/sudo|-u|#4294967294|/bin/launchctl|remove|com.example.agent");
}

TEST_F(agent_start_before_10_10, launchd_is_told_to_run_launchctl) {
  const uid_t uid = has_users() ? 501 : 0;
  test::scripted_launchd launchd(make_launchd_folder("alice", uid) + "/sock", uid);
  osx::launchd_agent_start(uid, kLabel, true, false);
  osx::launchd_agent_start(uid, kLabel, false, false);
  const auto seen = launchd.requests();
  ASSERT_EQ(seen.size(), 6u);
  const std::string rest = std::string("-S") + std::string(6, '\0');
  for (const auto& [index, verb] : {std::pair(1, "load"), std::pair(4, "unload")}) {
    const std::string& bytes = seen[static_cast<std::size_t>(index)].bytes;
    std::size_t at = 0;
    for (const std::string word : {"SubmitJob", "/bin/launchctl", verb, "-S", "Aqua", kPath}) {
      at = bytes.find(test::wire_word(word.size()) + word + '\0', at);
      ASSERT_NE(at, std::string::npos) << word;
    }
  }
}

TEST_F(agent_start_before_10_10, a_bad_exit_status_of_sudo_is_not_examined) {
  record("/usr/bin/sudo", "exit 1");
  osx::launchd_agent_start(501, kLabel, false, true);
  EXPECT_EQ(done("run").size(), 2u);
  EXPECT_EQ(done("log").size(), 3u);
}

TEST_F(agent_start_before_10_10, a_sudo_that_hangs_has_five_seconds_and_the_rest_goes_on) {
  record("/usr/bin/sudo", kHang);
  step_clock_while_hanging(1000);
  osx::launchd_agent_start(501, kLabel, true, true);
  const lines told = done("log");
  ASSERT_EQ(told.size(), 5u);
  EXPECT_EQ(told[2], "launchd_agent_start: failed to run launctl: :Error in 'system'");
  EXPECT_EQ(told[4], "launchd_exec: session not found");
  EXPECT_EQ(clock_ms, 6000);
}

TEST_F(agent_start_before_10_10, a_hanging_sudo_while_stopping_is_told_twice) {
  record("/usr/bin/sudo", kHang);
  step_clock_while_hanging(1000);
  osx::launchd_agent_start(501, kLabel, false, true);
  EXPECT_EQ(clock_ms, 2 * 6000);
  EXPECT_EQ(done("log"),
            (lines{"launchd_agent_start: agent in 501 update (start=0) for com.example.agent 1",
                   "launchd_agent_start: trying in session",
                   "launchd_agent_start: failed to run launctl: :Error in 'system'",
                   "launchd_agent_start: calling remove",
                   "launchd_agent_start: failed to run launctl remove: :Error in 'system'"}));
}

TEST_F(agent_start_before_10_10, another_exception_than_ours_passes_on) {
  record("/usr/bin/sudo", kHang);
  muro::x_relative_time = []() -> long long { throw 1; };
  EXPECT_THROW(osx::launchd_agent_start(501, kLabel, true, true), int);
  EXPECT_THROW(osx::launchd_agent_start(501, kLabel, false, true), int);
}

TEST_F(agent_start_before_10_10, what_the_launchd_route_throws_passes_on) {
  const uid_t uid = has_users() ? 501 : 0;
  test::scripted_launchd launchd(make_launchd_folder("alice", uid) + "/sock", uid);
  int pauses = 0;
  at_pause = [&pauses] {
    if (++pauses == 2) throw 1;
  };
  EXPECT_THROW(osx::launchd_agent_start(uid, kLabel, true, false), int);
}

TEST_F(agent_start_on_10_10, launchctl_enters_the_logins_session_and_becomes_the_user) {
  launchd_agent_start_v2(321, "alice", kLabel, true);
  EXPECT_EQ(done(), (lines{"log launchd_agent_start_v2: agent in 321 update (start=1) for "
                           "com.example.agent",
                           "run /bin/launchctl|bsexec|321|/usr/bin/sudo|-u|alice|/bin/launchctl|"
                           "load|" +
                               std::string(kPath),
                           "pause 100000"}));
}

TEST_F(agent_start_on_10_10, stopping_unloads) {
  launchd_agent_start_v2(321, "alice", kLabel, false);
  EXPECT_EQ(done(), (lines{"log launchd_agent_start_v2: agent in 321 update (start=0) for "
                           "com.example.agent",
                           "run /bin/launchctl|bsexec|321|/usr/bin/sudo|-u|alice|/bin/launchctl|"
                           "unload|" +
                               std::string(kPath),
                           "pause 100000"}));
}

TEST_F(agent_start_from_10_11, the_job_goes_into_the_users_domain_with_the_line_end_of_id) {
  launchd_agent_start_v2(321, "alice", kLabel, true);
  EXPECT_EQ(done(), (lines{"log launchd_agent_start_v2: agent in 321 update (start=1) for "
                           "com.example.agent",
                           "run /bin/launchctl|bootstrap|gui/501\n|" + std::string(kPath),
                           "pause 100000"}));
}

TEST_F(agent_start_from_10_11, stopping_boots_out_with_the_same_line_end) {
  launchd_agent_start_v2(321, "bob", kLabel, false);
  EXPECT_EQ(done("run"), (lines{"/bin/launchctl|bootout|gui/502\n|" + std::string(kPath)}));
}

TEST_F(agent_start_from_10_11, later_releases_do_the_same) {
  set_release("14.5");
  launchd_agent_start_v2(321, "alice", kLabel, true);
  EXPECT_EQ(done("run"), (lines{"/bin/launchctl|bootstrap|gui/501\n|" + std::string(kPath)}));
}

TEST_F(agent_start_from_10_11, id_is_asked_for_the_user_and_its_text_is_taken_as_it_is) {
  answer_id("printf ' 77 x\\n\\n'");
  launchd_agent_start_v2(321, "some one", kLabel, true);
  EXPECT_EQ(done("run"), (lines{"/usr/bin/id|-u|some one",
                                "/bin/launchctl|bootstrap|gui/ 77 x\n\n|" + std::string(kPath)}));
}

TEST_F(agent_start_from_10_11, a_user_whom_id_does_not_know_is_passed_over) {
  launchd_agent_start_v2(321, "nemo", kLabel, true);
  EXPECT_TRUE(done("run").empty());
  EXPECT_TRUE(done("pause").empty());
  EXPECT_EQ(done("log").back(),
            "launchd_agent_start_v2: failed to retrieve effective user id, will not load for user "
            "nemo");
}

TEST_F(agent_start_from_10_11, a_bad_status_is_told_with_the_systems_error_text) {
  answer_id("echo 501; exit 1");
  launchd_agent_start_v2(321, "alice", kLabel, true);
  const lines told = done("log");
  ASSERT_EQ(told.size(), 3u);
  EXPECT_EQ(told[1].find("launchd_agent_start_v2: err: "), 0u);
  EXPECT_EQ(told[2],
            "launchd_agent_start_v2: failed to retrieve effective user id, will not load for user "
            "alice");
  EXPECT_EQ(done("run").size(), 1u);
}

TEST_F(agent_start_from_10_11, an_id_that_ends_without_a_text_is_passed_over) {
  answer_id("exit 0");
  launchd_agent_start_v2(321, "alice", kLabel, true);
  EXPECT_EQ(done("run"), (lines{"/usr/bin/id|-u|alice"}));
  EXPECT_EQ(done("log").size(), 2u);
}

TEST_F(agent_start_from_10_11, a_machine_without_id_passes_the_user_over) {
  ::setenv("PATH", "/nowhere", 1);
  launchd_agent_start_v2(321, "alice", kLabel, true);
  EXPECT_TRUE(done("run").empty());
  EXPECT_EQ(done("log").size(), 2u);
}

TEST_F(agent_start_from_10_11, an_id_that_cannot_be_started_passes_the_user_over) {
  {
    const test::broken_pipes broken;
    launchd_agent_start_v2(321, "alice", kLabel, true);
  }
  EXPECT_TRUE(done("run").empty());
  EXPECT_EQ(done("log").back(),
            "launchd_agent_start_v2: failed to retrieve effective user id, will not load for user "
            "alice");
}

TEST_F(agent_start_from_10_11, what_launchctl_makes_of_it_is_not_examined) {
  record("/bin/launchctl", "exit 5");
  launchd_agent_start_v2(321, "alice", kLabel, true);
  EXPECT_EQ(done("log").size(), 1u);
}
