/// The front while memory runs out: in a request, in an installation, at the start of a child. The
/// process goes on, no descriptor and no child is left, the restore file stands at one place.

#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "front/command_handler.h"
#include "front/installation.h"
#include "front/session_folder.h"
#include "muro/core/errlog.h"
#include "muro/core/hooks.h"
#include "muro/sys/process.h"
#include "osx/job_files.h"
#include "tests/faults/failing_memory.h"
#include "tests/front/mac.h"
#include "tests/support/descriptors.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr const char* kOriginal = "/tmp/abc.dat";
constexpr const char* kKept = "/Library/VeskRuntime/sessions/abc/abc.dat";
constexpr const char* kAgentFile = "/Library/LaunchAgents/com.norvane.korvel.restart.abc.plist";
constexpr const char* kDaemonFile = "/Library/LaunchDaemons/com.norvane.korvel.helper.abc.plist";
constexpr const char* kLogFile = "/private/var/log/front_tests.out";
const std::string kLong(100, 'x');

void pause_shortly(unsigned long long) {
  ::usleep(200);
}

bool has_no_children() {
  return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

/// One user is logged in, so that agents are loaded somewhere.
void log_in() {
  utmpx record{};
  record.ut_type = USER_PROCESS;
  record.ut_pid = 4242;
  std::strcpy(record.ut_line, "console");
  std::strcpy(record.ut_user, "root");
  test::write_file("/private/var/run/utmp",
                   std::string(reinterpret_cast<const char*>(&record), sizeof record));
}

class exhausted_memory_in_front : public test::mac {
 protected:
  exhausted_memory_in_front() {
    // The recording hooks allocate, and the product's pauses throw nothing.
    muro::errlog::set_log_line_hook(nullptr);
    muro::x_pause_us = pause_shortly;
    std::filesystem::remove("/bin/launchctl");
    std::filesystem::create_symlink("../usr/bin/true", "/bin/launchctl");
    test::install_client();
    log_in();
    muro::fmt_dbg("test").fmt_verbose("the log is up");
    muro::errlog::wait_for_flush();
  }

  // The fixture's base writes its own in this place.
  ~exhausted_memory_in_front() override { std::filesystem::remove("/bin/launchctl"); }

  /// A session as the client leaves it before it registers.
  static void unregistered() {
    test::remove_tree("/Library/VeskRuntime");
    test::remove_tree(kAgentFile);
    test::remove_tree(kDaemonFile);
    test::make_file(kOriginal, "state");
  }

  /// The session folder filled, both jobs installed.
  static void registered() {
    unregistered();
    test::remove_tree(kOriginal);
    test::make_file(kKept, "state");
    test::make_file(kAgentFile, "agent");
    test::make_file(kDaemonFile, "daemon");
  }

  /// Runs the operation, each time on the session that `prepare` makes, with each of its
  /// allocations failing, and at last with none. `intact` holds after every run.
  static void survives(const std::function<void()>& prepare, const std::function<void()>& operation,
                       const std::function<void()>& intact) {
    const std::set<int> descriptors = test::open_descriptors();
    const auto check = [&] {
      muro::errlog::wait_for_flush();
      EXPECT_EQ(test::open_descriptors(), descriptors);
      EXPECT_TRUE(has_no_children());
      intact();
    };
    test::expect_survival({prepare, operation, check});
    check();
  }
};

void expect_one_restore_file() {
  const bool moved = test::exists(kKept);
  EXPECT_NE(test::exists(kOriginal), moved);
  EXPECT_EQ(test::content_of(moved ? kKept : kOriginal), "state");
}

void expect_kept_until_the_daemon_is_gone() {
  if (!test::exists(kDaemonFile)) return;
  EXPECT_EQ(test::content_of(kKept), "state");
}

void expect_whole_if_there(const std::string& job_file) {
  if (!test::exists(job_file)) return;
  EXPECT_EQ(test::arguments_in(job_file).size(), 7U);
}

/// What a client's request does, on this thread; the request is made before memory runs out.
std::function<void()> ask(ipc_communicator& handler, const std::string& command,
                          const std::string& argument) {
  return [&handler, body = test::packet(command, argument)] {
    static_cast<void>(handler.handle_request(body));
  };
}

}  // namespace

TEST_F(exhausted_memory_in_front, of_a_registration_keeps_the_restore_file) {
  ipc_communicator handler("front_test", "");
  survives(unregistered, ask(handler, "rnr_register", kOriginal), [] {
    expect_one_restore_file();
    expect_whole_if_there(kAgentFile);
  });
  EXPECT_TRUE(test::exists(kAgentFile));
}

TEST_F(exhausted_memory_in_front, of_a_resignation_keeps_the_session) {
  ipc_communicator handler("front_test", "");
  survives(registered, ask(handler, "rnr_resign", kKept), [] {
    expect_one_restore_file();
    EXPECT_EQ(test::content_of(kDaemonFile), "daemon");
  });
  EXPECT_FALSE(test::exists(kAgentFile));
}

TEST_F(exhausted_memory_in_front, of_its_own_resignation_removes_in_order) {
  ipc_communicator handler("front_test", "abc");
  survives(registered, ask(handler, "rnr_resign", kKept), expect_kept_until_the_daemon_is_gone);
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
}

TEST_F(exhausted_memory_in_front, of_an_unknown_request_ends_nothing) {
  ipc_communicator handler("front_test", "");
  survives(unregistered, ask(handler, kLong, kLong), expect_one_restore_file);
}

TEST_F(exhausted_memory_in_front, of_a_malformed_request_ends_nothing) {
  ipc_communicator handler("front_test", "");
  survives(
      unregistered, [&handler, body = kLong] { static_cast<void>(handler.handle_request(body)); },
      expect_one_restore_file);
}

TEST_F(exhausted_memory_in_front, of_a_removal_goes_in_order) {
  survives(
      registered, [] { uninstallServiceRemove("abc"); }, expect_kept_until_the_daemon_is_gone);
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
}

TEST_F(exhausted_memory_in_front, of_an_installation_keeps_the_restore_file) {
  survives(
      unregistered, [] { installService(test::kClientBundle, kOriginal, "abc"); },
      expect_one_restore_file);
}

TEST_F(exhausted_memory_in_front, of_a_bundles_copy_leaves_the_bundle) {
  const test::lines before = test::tree(test::kClientBundle);
  survives(
      unregistered, [] { moveAppBundle(test::kClientBundle, "abc"); },
      [&] { EXPECT_EQ(test::tree(test::kClientBundle), before); });
  EXPECT_EQ(test::tree("/Library/VeskRuntime/sessions/abc/app/Korvel.app"), before);
}

TEST_F(exhausted_memory_in_front, of_a_helpers_move_leaves_one_helper) {
  const std::string from = "/opt/helper";
  const std::string to = "/Library/VeskRuntime/sessions/abc/helper/KorvelHelper";
  const auto prepare = [&] {
    unregistered();
    test::make_file(from, "helper");
  };
  survives(
      prepare, [&] { moveHelper(from, "abc"); },
      [&] { EXPECT_NE(test::exists(from), test::exists(to)); });
  EXPECT_EQ(test::content_of(to), "helper");
}

TEST_F(exhausted_memory_in_front, of_a_job_files_writing_leaves_the_old_or_the_new) {
  const std::vector<std::string> words(7, kLong);
  survives(
      registered, [&] { osx::launchd_daemon_install("com.norvane.korvel.helper.abc", words); },
      [] {
        if (test::content_of(kDaemonFile) != "daemon") expect_whole_if_there(kDaemonFile);
      });
  EXPECT_EQ(test::arguments_in(kDaemonFile), words);
}

TEST_F(exhausted_memory_in_front, of_a_childs_start_leaves_no_child) {
  const std::vector<std::string> words{kLong};
  std::string printed;
  survives(
      unregistered,
      [&] {
        long long status = 0;
        printed = muro::process::system_immediate("/bin/echo", words, &status, 10);
        muro::process::system("/bin/echo", {}, 10);
      },
      [] {});
  EXPECT_EQ(printed, kLong + "\n");
}

TEST_F(exhausted_memory_in_front, of_a_log_line_keeps_the_others) {
  const muro::fmt_dbg log("memory");
  survives(
      unregistered, [&] { log.fmt_verbose("%1%", kLong); }, [] {});
  log.fmt_verbose("last words");
  muro::errlog::wait_for_flush();
  EXPECT_NE(test::content_of(kLogFile).find("memory: last words\n"), std::string::npos);
}

TEST_F(exhausted_memory_in_front, of_the_logs_thread_loses_no_later_line) {
  const muro::fmt_dbg log("memory");
  {
    const test::others_short_of_memory others(3);
    for (int i = 0; i < 200; ++i) {
      log.fmt_verbose("%1% %2%", i, kLong);
      muro::errlog::wait_for_flush();
    }
    EXPECT_GT(others.failures(), 0);
  }
  log.fmt_verbose("last words");
  muro::errlog::wait_for_flush();
  EXPECT_NE(test::content_of(kLogFile).find("memory: last words\n"), std::string::npos);
}

TEST_F(exhausted_memory_in_front, of_an_endpoints_opening_leaves_none) {
  survives(
      unregistered, [] { const ipc_communicator handler("front_test", "abc"); },
      [] { EXPECT_FALSE(test::exists("/tmp/front_test.ipc")); });
}
