// The helper as a process: exit statuses, log files, and what moves its executable. The log is read
// from its file, so these tests also hold that it is complete when the process has ended.

#include <signal.h>
#include <unistd.h>
#include <utmpx.h>

#include <filesystem>
#include <sstream>

#include "tests/front/mac.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* kHelper = "/opt/korvel/korvel_helper";
constexpr const char* kLog = "/opt/korvel/korvel_helper.out";
constexpr const char* kInstallLog = "/opt/korvel/korvel_helper_install.out";
constexpr const char* kPauses = "/opt/korvel/pauses";
constexpr const char* kSharedDaemon = "/Library/LaunchDaemons/com.norvane.korvel.helper.plist";
constexpr const char* kCopy = "/Library/VeskRuntime/sessions/abc/helper/KorvelHelper";

/// The messages of one scope in a log file.
test::lines messages(const std::string& file, const std::string& scope) {
  test::lines found;
  std::istringstream in(test::content_of(file));
  for (std::string line; std::getline(in, line);) {
    const std::string text = line.substr(line.find(' ') + 1);
    if (text.compare(0, scope.size() + 2, scope + ": ") == 0)
      found.push_back(text.substr(scope.size() + 2));
  }
  return found;
}

class helper : public test::mac {
 protected:
  helper() {
    fs::create_directories("/opt/korvel");
    fs::copy_file(FRONT_PROBE, kHelper);
  }

  static test::lines command(test::lines options, const std::string& executable = kHelper) {
    options.insert(options.begin(), executable);
    return options;
  }

  static test::lines environment(test::lines more = {}) {
    more.push_back(std::string("FRONT_PAUSES=") + kPauses);
    more.push_back("PATH=/usr/bin:/bin");
    return more;
  }

  static int run(const test::lines& options, const test::lines& more = {}) {
    return test::program(command(options), environment(more)).wait();
  }
};

TEST_F(helper, shared_daemon_installation_exits_with_0_and_has_a_log_of_its_own) {
  EXPECT_EQ(run({"-runInstall", "1"}), 0);
  EXPECT_THAT(test::arguments_in(kSharedDaemon), ElementsAre(kHelper));
  EXPECT_THAT(test::content_of(kInstallLog),
              HasSubstr("launchd_daemon_install: writing pinfo: " + std::string(kSharedDaemon)));
  EXPECT_FALSE(test::exists(kLog));
}

TEST_F(helper, shared_daemon_installation_exits_with_1_without_a_job_file) {
  EXPECT_EQ(run({"-runInstall", "1"}, {std::string("FRONT_GONE_AT_PAUSE=") + kSharedDaemon}), 1);
}

TEST_F(helper, shared_daemon_installation_exits_with_1_when_it_cannot_write) {
  test::remove_tree("/Library/LaunchDaemons");
  EXPECT_EQ(run({"-runInstall", "1"}), 1);
  ASSERT_EQ(messages(kInstallLog, "installServiceNoInstant").size(), 1U);
  EXPECT_THAT(messages(kInstallLog, "installServiceNoInstant")[0],
              StartsWith("Failed to install daemon: 2 (No such file or directory)"));
}

TEST_F(helper, shared_daemon_installation_ignores_a_restore_file) {
  test::make_file("/tmp/abc.dat");
  EXPECT_EQ(run({"-restoreFile", "/tmp/abc.dat", "-runInstall", "1"}), 0);
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
  EXPECT_THAT(test::tree("/Library/LaunchDaemons"), ElementsAre("com.norvane.korvel.helper.plist"));
}

TEST_F(helper, session_installation_moves_all_and_installs_the_daemon) {
  test::install_client();
  test::make_file("/tmp/abc.dat", "state");
  EXPECT_EQ(run({"-exePath", test::kClientBundle, "-restoreFile", "/tmp/abc.dat"}), 0);
  EXPECT_FALSE(test::exists(kHelper));
  EXPECT_EQ(test::mode_of(kCopy) & 0111, 0111U);
  EXPECT_EQ(test::content_of(test::session_file("abc")), "state");
  EXPECT_EQ(test::label_in(test::daemon_file("abc")), "com.norvane.korvel.helper.abc");
  EXPECT_THAT(test::arguments_in(test::daemon_file("abc")),
              ElementsAre(kCopy, "-installed", "1", "-exePath",
                          "/Library/VeskRuntime/sessions/abc/app/Korvel.app/Contents/MacOS/korvel",
                          "-restoreFile", "/Library/VeskRuntime/sessions/abc/abc.dat"));
  EXPECT_THAT(messages(kLog, "main"), IsEmpty());
}

TEST_F(helper, session_installation_looks_for_the_job_file_after_200_ms) {
  test::install_client();
  test::make_file("/tmp/abc.dat");
  EXPECT_EQ(run({"-exePath", test::kClientBundle, "-restoreFile", "/tmp/abc.dat"},
                {"FRONT_GONE_AT_PAUSE=" + test::daemon_file("abc")}),
            1);
  EXPECT_THAT(messages(kLog, "main"),
              ElementsAre("Failed to install service, will not be able to resume properly"));
}

TEST_F(helper, session_installation_without_a_bundle_has_moved_the_helper_already) {
  test::make_file("/tmp/abc.dat");
  EXPECT_EQ(run({"-exePath", test::kClientBundle, "-restoreFile", "/tmp/abc.dat"}), 1);
  EXPECT_TRUE(test::exists(kCopy));
  EXPECT_FALSE(test::exists(test::daemon_file("abc")));
  EXPECT_THAT(messages(kLog, "moveAppBundle"),
              ElementsAre("Failed to move bundle: No such file or directory"));
}

TEST_F(helper, session_installation_tells_what_launchd_control_threw) {
  test::install_client();
  test::make_file("/tmp/abc.dat");
  test::remove_tree("/Library/LaunchDaemons");
  EXPECT_EQ(run({"-exePath", test::kClientBundle, "-restoreFile", "/tmp/abc.dat"}), 1);
  ASSERT_EQ(messages(kLog, "installService").size(), 1U);
  EXPECT_THAT(messages(kLog, "installService")[0],
              StartsWith("Failed to install daemon: 2 (No such file or directory)"));
}

TEST_F(helper, session_installation_without_an_executable_touches_nothing) {
  test::make_file("/tmp/abc.dat");
  EXPECT_EQ(run({"-restoreFile", "/tmp/abc.dat"}), 1);
  EXPECT_THAT(messages(kLog, "installService"), ElementsAre("Insufficient arguments, exiting..."));
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
}

// What is no exception of the runtime passes through the role and ends the process; the log is
// written all the same.
TEST_F(helper, exception_that_escapes_a_role_ends_the_process_with_its_log_written) {
  test::install_client();
  test::make_file("/tmp/abc.dat");
  EXPECT_EQ(run({"-exePath", test::kClientBundle, "-restoreFile", "/tmp/abc.dat"},
                {"FRONT_THROW_AT_PAUSE=1"}),
            -SIGABRT);
  ASSERT_FALSE(messages(kLog, "probe").empty());
  EXPECT_EQ(messages(kLog, "probe").back(), "last words");
}

TEST_F(helper, missing_restore_file_removes_the_session_and_exits_with_0) {
  test::make_file(test::agent_file("abc"));
  test::make_file(test::daemon_file("abc"));
  test::make_file("/Library/VeskRuntime/sessions/abc/app/file");
  EXPECT_EQ(run({"-installed", "1", "-restoreFile", "/x/abc.dat"}), 0);
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
  EXPECT_FALSE(test::exists(test::daemon_file("abc")));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
  EXPECT_THAT(messages(kLog, "main"),
              ElementsAre("restore file /x/abc.dat does not exist, removing this service",
                          "Failed to uninstall agent for /x/abc.dat"));
  EXPECT_THAT(messages(kLog, "uninstallServiceRemove"), ElementsAre("Removing all related files"));
}

TEST_F(helper, missing_restore_file_tells_of_an_agent_that_stays) {
  test::make_file("/Library/LaunchAgents/com.norvane.korvel.restart.abc.plist");
  const std::string rm = "/opt/rm";
  fs::rename("/bin/rm", rm);
  EXPECT_EQ(run({"-restoreFile", "/x/abc.dat"}), 0);
  fs::rename(rm, "/bin/rm");
  EXPECT_THAT(messages(kLog, "main"),
              ElementsAre("restore file /x/abc.dat does not exist, removing this service",
                          "Failed to uninstall agent for /x/abc.dat",
                          "Failed to uninstall agent for /x/abc.dat"));
}

TEST_F(helper, session_daemon_removes_the_folder_that_its_log_lies_in) {
  test::make_file(test::daemon_file("abc"));
  fs::create_directories("/Library/VeskRuntime/sessions/abc/helper");
  fs::rename(kHelper, kCopy);
  test::program program(
      command({"-installed", "1", "-restoreFile", "/Library/VeskRuntime/sessions/abc/abc.dat"},
              kCopy),
      environment());
  EXPECT_EQ(program.wait(), 0);
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
  EXPECT_THAT(program.output(), Not(HasSubstr("Failed to remove launchd daemon plist")));
}

TEST_F(helper, restore_file_without_an_id_exits_with_42) {
  test::make_file("/tmp/abc.txt");
  for (const char* file :
       {"/tmp/abc.txt", "/tmp/missing.txt", "", "/tmp/.dat", "/tmp/..dat", "/tmp/...dat"})
    EXPECT_EQ(run({"-restoreFile", file}), 42) << file;
  EXPECT_EQ(run({"-installed", "1", "-restoreFile", "/tmp/abc.txt"}), 42);
  EXPECT_TRUE(test::exists("/tmp/abc.txt"));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

// Lines may be lost with status 42, so it takes many runs to see the line at least once.
TEST_F(helper, restore_file_without_an_id_is_told_to_the_log) {
  const bool told = test::wait_until([] {
    run({"-restoreFile", "/tmp/abc.txt"});
    return test::content_of(kLog).find("main: Invalid restore file, should remove self\n") !=
           std::string::npos;
  });
  EXPECT_TRUE(told);
}

TEST_F(helper, serves_the_shared_endpoint_until_it_is_killed) {
  test::make_file(test::agent_file("abc"));
  test::program program(command({}), environment());
  ASSERT_TRUE(test::wait_for_endpoint("korvel_helper"));
  EXPECT_EQ(test::request("korvel_helper", test::packet("rnr_resign", "/tmp/abc.dat")), "");
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
  ::kill(program.pid(), SIGTERM);
  EXPECT_EQ(program.wait(), -SIGTERM);
}

TEST_F(helper, installed_session_ensures_its_agent_and_serves_its_endpoint) {
  test::make_file(test::session_file("abc"));
  test::program program(command({"-installed", "1", "-exePath", "/x/korvel", "-restoreFile",
                                 test::session_file("abc")}),
                        environment());
  ASSERT_TRUE(test::wait_for_endpoint("korvel_helper_abc"));
  EXPECT_EQ(test::label_in(test::agent_file("abc")), "com.norvane.korvel.restart.abc");
  EXPECT_EQ(test::request("korvel_helper_abc", ""), "");
}

/// A login record of the console, as the only one.
void log_in(const std::string& user) {
  utmpx record{};
  record.ut_type = USER_PROCESS;
  record.ut_pid = 1;
  user.copy(record.ut_user, sizeof record.ut_user);
  std::string("console").copy(record.ut_line, sizeof record.ut_line);
  test::write_file("/var/run/utmp", {reinterpret_cast<const char*>(&record), sizeof record});
}

// The agent's start asks `id`, by that name alone, for the user's number.
TEST_F(helper, finds_programs_in_launchds_folders_wherever_its_starter_looks) {
  log_in("root");
  test::make_file("/opt/mallory/id", "#!/bin/sh\necho 666\n");
  fs::permissions("/opt/mallory/id", fs::perms(0755));
  test::make_file(test::session_file("abc"));
  test::program program(command({"-installed", "1", "-exePath", "/x/korvel", "-restoreFile",
                                 test::session_file("abc")}),
                        environment({"PATH=/opt/mallory:/usr/bin:/bin"}));
  ASSERT_TRUE(test::wait_for_endpoint("korvel_helper_abc"));
  std::string calls;
  test::wait_until([&calls] {
    calls = test::content_of("/private/var/launchctl.calls");
    return calls.find(".plist") != std::string::npos;
  });
  EXPECT_THAT(calls, StartsWith("bootstrap gui/0\n"));
  test::write_file("/var/run/utmp", "");
}

TEST_F(helper, opens_closed_standard_descriptors_on_the_null_device) {
  test::program program(command({}), environment(), {0, 1, 2});
  ASSERT_TRUE(test::wait_for_endpoint("korvel_helper"));
  const std::string folder = "/proc/" + std::to_string(program.pid()) + "/fd/";
  for (const char* descriptor : {"0", "1", "2"})
    EXPECT_EQ(fs::read_symlink(folder + descriptor), "/dev/null");
}

TEST_F(helper, echoes_its_log_to_standard_error) {
  test::program program(command({"-restoreFile", "/x/abc.dat"}), environment());
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(program.output(), HasSubstr("main: restore file /x/abc.dat does not exist"));
}

TEST_F(helper, rotates_its_log_at_1_mib_with_one_old_file) {
  test::make_file(kLog, std::string(0x100000, 'x'));
  test::make_file(std::string(kLog) + ".0", "oldest");
  EXPECT_EQ(run({"-restoreFile", "/x/abc.dat"}), 0);
  EXPECT_THAT(test::content_of(std::string(kLog) + ".0"), StartsWith("xxx"));
  EXPECT_FALSE(test::exists(std::string(kLog) + ".1"));
}

}  // namespace
