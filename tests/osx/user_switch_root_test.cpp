#include "muro/sys/user_switch.h"

#include <atomic>
#include <thread>

#include "muro/core/exception.h"
#include "muro/sys/process.h"
#include "tests/osx/mac.h"
#include "tests/osx/system_calls.h"

namespace {

using test::lines;

class user_switch : public test::mac {
 protected:
  static std::string refusal(unsigned long long uid) {
    try {
      const muro::user_switch as_user(uid, "test");
    } catch (const muro::exception& e) {
      return e.description();
    }
    return "nothing was thrown";
  }

  // Long enough for a thread that is not held back to do what it must not do. Passing does not
  // depend on it.
  static void give_others_a_chance() { ::usleep(50 * 1000); }
};

}  // namespace

TEST_F(user_switch, makes_the_process_act_as_the_user_and_as_root_again) {
  REQUIRE_USERS();
  {
    const muro::user_switch as_user(501, "test");
    EXPECT_EQ(::geteuid(), 501u);
    EXPECT_EQ(::getuid(), 0u);
  }
  EXPECT_EQ(::geteuid(), 0u);
}

TEST_F(user_switch, ends_when_an_exception_leaves_it) {
  REQUIRE_USERS();
  try {
    const muro::user_switch as_user(501, "test");
    throw 1;
  } catch (int) {
    EXPECT_EQ(::geteuid(), 0u);
  }
}

TEST_F(user_switch, keeps_errno_on_the_way_back) {
  test::system_calls calls;
  calls.errno_after_success = ENOTTY;
  test::watched = &calls;
  {
    const muro::user_switch as_user(0, "test");
    errno = EXDEV;
  }
  const int left = errno;
  test::watched = nullptr;
  EXPECT_EQ(left, EXDEV);
}

TEST_F(user_switch, refuses_a_number_that_is_no_user_id) {
  const std::string invalid = ":Error from 'seteuid' (called in 'test'): 22, Invalid argument";
  EXPECT_EQ(refusal(0x100000000ULL), invalid);
  EXPECT_EQ(refusal(0x1000001F5ULL), invalid);
  EXPECT_EQ(refusal(0xFFFFFFFFULL), invalid);
  EXPECT_EQ(::geteuid(), 0u);
}

TEST_F(user_switch, refuses_a_process_that_could_not_come_back) {
  REQUIRE_USERS();
  const test::acting_as bob(502);
  EXPECT_EQ(refusal(501), ":Error from 'seteuid' (called in 'test'): 1, Operation not permitted");
  EXPECT_EQ(refusal(502), ":Error from 'seteuid' (called in 'test'): 1, Operation not permitted");
  EXPECT_EQ(::geteuid(), 502u);
}

TEST_F(user_switch, leaves_the_gate_open_when_it_is_refused) {
  refusal(0xFFFFFFFFULL);
  const muro::effective_user_gate free;
  SUCCEED();
}

TEST_F(user_switch, ends_the_process_at_once_when_root_cannot_be_restored) {
  REQUIRE_USERS();
  const auto give_up_root_within = [] {
    std::atexit([] { ::puts("exit handlers ran"); });
    const muro::user_switch as_user(501, "test");
    ::setresuid(501, 501, 501);
  };
  EXPECT_EXIT(give_up_root_within(), ::testing::KilledBySignal(SIGKILL), "");
}

TEST_F(user_switch, two_switches_do_not_overlap) {
  REQUIRE_USERS();
  std::atomic<unsigned> seen{0};
  std::thread second;
  {
    const muro::user_switch as_alice(501, "test");
    second = std::thread([&seen] {
      const muro::user_switch as_bob(502, "test");
      seen = ::geteuid();
    });
    give_others_a_chance();
    EXPECT_EQ(seen, 0u);
    EXPECT_EQ(::geteuid(), 501u);
  }
  second.join();
  EXPECT_EQ(seen, 502u);
  EXPECT_EQ(::geteuid(), 0u);
}

TEST_F(user_switch, the_gate_is_not_passed_meanwhile) {
  REQUIRE_USERS();
  std::atomic<int> user{-1};
  std::thread other;
  {
    const muro::user_switch as_alice(501, "test");
    other = std::thread([&user] {
      const muro::effective_user_gate as_root;
      user = static_cast<int>(::geteuid());
    });
    give_others_a_chance();
    EXPECT_EQ(user, -1);
  }
  other.join();
  EXPECT_EQ(user, 0);
}

TEST_F(user_switch, the_log_file_is_opened_as_root_and_nothing_is_lost) {
  REQUIRE_USERS();
  muro::errlog::set_log_filter(nullptr);
  muro::errlog::set_log_to_stderr(false);
  const std::string path = "/Library/Logs/user_switch_test.log";
  muro::errlog::set_log_file(path);
  const muro::errlog log("test");
  log.log(0, "before", 6);
  muro::errlog::wait_for_flush();
  std::filesystem::remove(path);
  {
    const muro::user_switch as_alice(501, "test");
    log.log(0, "meanwhile", 9);
    give_others_a_chance();
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
  }
  muro::errlog::wait_for_flush();
  EXPECT_NE(test::read_file(path).find(" test: meanwhile\n"), std::string::npos);
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 0u);
  muro::errlog::set_log_file("");
  muro::errlog::set_log_to_stderr(true);
}

TEST_F(user_switch, a_full_log_is_rotated_as_root) {
  REQUIRE_USERS();
  muro::errlog::set_log_filter(nullptr);
  muro::errlog::set_log_to_stderr(false);
  const std::string path = "/Library/Logs/user_switch_rotation.log";
  test::write_file(path, std::string(2000, 'x') + "\n");
  muro::errlog::set_log_rotate(1000, 1);
  muro::errlog::set_log_file(path);
  {
    const muro::user_switch as_alice(501, "test");
    muro::errlog("test").log(0, "last", 4);
    give_others_a_chance();
  }
  muro::errlog::wait_for_flush();
  EXPECT_NE(test::read_file(path + ".0").find(" test: last\n"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(path));
  muro::errlog::set_log_rotate(0, 0);
  muro::errlog::set_log_file("");
  muro::errlog::set_log_to_stderr(true);
}

TEST_F(user_switch, a_program_is_started_as_root) {
  REQUIRE_USERS();
  record("/bin/launchctl");
  std::thread other;
  {
    const muro::user_switch as_alice(501, "test");
    other = std::thread([] { muro::process::system("/bin/launchctl", {}, 60); });
    give_others_a_chance();
    EXPECT_FALSE(std::filesystem::exists("/recorded/0"));
  }
  other.join();
  EXPECT_EQ(done("run"), (lines{"/bin/launchctl"}));
  EXPECT_EQ(user_of_run(0), 0);
}
