#include "front/installation.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "muro/core/errlog.h"
#include "muro/sys/files.h"
#include "muro/sys/unique_fd.h"
#include "tests/front/mac.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using installation = test::mac;

constexpr const char* kSharedDaemon = "/Library/LaunchDaemons/com.norvane.korvel.helper.plist";
constexpr unsigned long long kAfterLaunchd_us = 200000;

const std::vector<nil_string> kNoSessions = {std::nullopt, "",    ".",
                                             "..",         "a/b", std::string("a\0b", 3)};

/// Makes every pause that follows a launchd operation take the file away.
void lose_at_pause(const std::string& file) {
  test::on_pause([file](unsigned long long us) {
    if (us == kAfterLaunchd_us) ::unlink(file.c_str());
  });
}

void throw_at_pause() {
  test::on_pause(
      [](unsigned long long) { throw std::runtime_error("no exception of the runtime"); });
}

TEST(labels, are_the_products) {
  EXPECT_STREQ(kVeskRNRServiceName, "com.norvane.korvel.helper");
  EXPECT_STREQ(kVeskRNRAgentName, "com.norvane.korvel.restart");
}

TEST_F(installation, shared_daemon_runs_this_executable_without_options) {
  EXPECT_TRUE(installServiceNoInstant());
  EXPECT_EQ(test::label_in(kSharedDaemon), "com.norvane.korvel.helper");
  EXPECT_THAT(test::arguments_in(kSharedDaemon), ElementsAre(muro::get_exe_path()));
  EXPECT_THAT(test::launchctl_calls(), ElementsAre("load -w " + std::string(kSharedDaemon)));
  EXPECT_THAT(test::log_of("installServiceNoInstant"), IsEmpty());
}

TEST_F(installation, shared_daemon_is_looked_for_after_200_ms) {
  lose_at_pause(kSharedDaemon);
  EXPECT_FALSE(installServiceNoInstant());
  EXPECT_EQ(test::pauses().back(), kAfterLaunchd_us);
  EXPECT_THAT(test::log_of("installServiceNoInstant"), IsEmpty());
}

TEST_F(installation, shared_daemon_tells_why_it_cannot_be_written) {
  test::remove_tree("/Library/LaunchDaemons");
  EXPECT_FALSE(installServiceNoInstant());
  EXPECT_THAT(test::log_of("installServiceNoInstant"),
              ElementsAre("Failed to install daemon: 2 (No such file or directory) "
                          "function=fopen file=" +
                          std::string(kSharedDaemon)));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

TEST_F(installation, shared_daemon_survives_any_exception) {
  throw_at_pause();
  EXPECT_FALSE(installServiceNoInstant());
  EXPECT_THAT(test::log_of("installServiceNoInstant"),
              ElementsAre("Failed to install daemon: unknown error"));
}

TEST_F(installation, session_daemon_needs_bundle_and_restore_file) {
  test::make_file("/tmp/abc.dat");
  EXPECT_FALSE(installService(std::nullopt, "/tmp/abc.dat", "abc"));
  EXPECT_FALSE(installService(test::kClientBundle, std::nullopt, "abc"));
  EXPECT_THAT(test::log_lines(), ElementsAre("installService: Insufficient arguments, exiting...",
                                             "installService: Insufficient arguments, exiting..."));
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime"));
}

TEST_F(installation, session_daemon_needs_its_restore_file_to_move) {
  EXPECT_FALSE(installService(test::kClientBundle, "/tmp/abc.dat", "abc"));
  EXPECT_THAT(test::log_of("installService"), ElementsAre("Failed to move restore file"));
  EXPECT_THAT(test::log_of("moveHelper"), IsEmpty());
}

// The test's own executable lies on another file system and cannot move.
TEST_F(installation, session_daemon_moves_the_restore_file_before_the_helper) {
  test::install_client();
  test::make_file("/tmp/abc.dat");
  EXPECT_FALSE(installService(test::kClientBundle, "/tmp/abc.dat", "abc"));
  EXPECT_TRUE(test::exists(test::session_file("abc")));
  EXPECT_THAT(test::log_of("moveHelper"),
              ElementsAre("Failed to move file to /Library/VeskRuntime/sessions/abc/helper/"
                          "KorvelHelper: Invalid cross-device link"));
  EXPECT_THAT(test::log_of("installService"), IsEmpty());
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc/app"));
  EXPECT_FALSE(test::exists(test::daemon_file("abc")));
}

TEST_F(installation, session_daemon_is_not_installed_for_an_id_that_names_no_session) {
  test::make_file("/tmp/.dat");
  for (const nil_string& id : kNoSessions)
    EXPECT_FALSE(installService(test::kClientBundle, "/tmp/.dat", id));
  EXPECT_TRUE(test::exists("/tmp/.dat"));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

TEST_F(installation, agent_starts_the_client_with_its_seven_arguments) {
  EXPECT_TRUE(installAgent("abc", test::kClientExecutable, "/x/abc.dat"));
  EXPECT_EQ(test::label_in(test::agent_file("abc")), "com.norvane.korvel.restart.abc");
  EXPECT_THAT(
      test::arguments_in(test::agent_file("abc")),
      ElementsAre(test::kClientExecutable, "--connect-restore", "/x/abc.dat", "--on-connect",
                  "desktop?restart=continue", "--auto-close", "--wait-for-console"));
}

TEST_F(installation, agent_is_looked_for_after_200_ms) {
  lose_at_pause(test::agent_file("abc"));
  EXPECT_FALSE(installAgent("abc", test::kClientExecutable, "/x/abc.dat"));
  EXPECT_EQ(test::pauses(), std::vector{kAfterLaunchd_us});
}

TEST_F(installation, agent_that_cannot_be_written_is_not_installed) {
  test::remove_tree("/Library/LaunchAgents");
  EXPECT_FALSE(installAgent("abc", test::kClientExecutable, "/x/abc.dat"));
}

TEST_F(installation, exceptions_of_the_agents_installation_pass_on) {
  throw_at_pause();
  EXPECT_THROW(installAgent("abc", test::kClientExecutable, "/x/abc.dat"), std::runtime_error);
}

TEST_F(installation, agent_needs_an_id_an_executable_and_a_restore_file) {
  for (const nil_string& id : kNoSessions)
    EXPECT_FALSE(installAgent(id, test::kClientExecutable, "/x/abc.dat"));
  EXPECT_FALSE(installAgent("abc", std::nullopt, "/x/abc.dat"));
  EXPECT_FALSE(installAgent("abc", test::kClientExecutable, std::nullopt));
  EXPECT_TRUE(std::filesystem::is_empty("/Library/LaunchAgents"));
  EXPECT_THAT(test::pauses(), IsEmpty());
}

TEST_F(installation, agent_is_installed_when_its_job_file_exists) {
  EXPECT_FALSE(agentInstalled("abc"));
  test::make_file(test::agent_file("abc"));
  EXPECT_TRUE(agentInstalled("abc"));
  EXPECT_FALSE(agentInstalled("ab"));
}

TEST_F(installation, agent_of_no_session_is_not_installed) {
  for (const char* id : {"", ".", ".."}) test::make_file(test::agent_file(id));
  for (const nil_string& id : kNoSessions) EXPECT_FALSE(agentInstalled(id));
}

TEST_F(installation, uninstalled_agent_is_gone) {
  test::make_file(test::agent_file("abc"));
  EXPECT_TRUE(uninstallAgent("abc"));
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
  EXPECT_EQ(test::pauses().back(), kAfterLaunchd_us);
  EXPECT_THAT(test::log_of("uninstallAgent"), IsEmpty());
}

TEST_F(installation, agent_that_never_existed_is_uninstalled) {
  EXPECT_TRUE(uninstallAgent("abc"));
}

TEST_F(installation, agent_that_comes_back_within_200_ms_is_not_uninstalled) {
  test::on_pause([](unsigned long long us) {
    if (us == kAfterLaunchd_us) test::make_file(test::agent_file("abc"));
  });
  EXPECT_FALSE(uninstallAgent("abc"));
}

TEST_F(installation, agent_of_no_session_is_not_uninstalled) {
  for (const char* id : {"", ".", ".."}) test::make_file(test::agent_file(id));
  for (const nil_string& id : kNoSessions) EXPECT_FALSE(uninstallAgent(id));
  for (const char* id : {"", ".", ".."}) EXPECT_TRUE(test::exists(test::agent_file(id)));
  EXPECT_THAT(test::pauses(), IsEmpty());
}

TEST_F(installation, uninstalled_service_is_unloaded_and_gone) {
  test::make_file(test::daemon_file("abc"));
  EXPECT_TRUE(uninstallService("abc"));
  EXPECT_FALSE(test::exists(test::daemon_file("abc")));
  EXPECT_THAT(test::launchctl_calls(), ElementsAre("unload -w " + test::daemon_file("abc")));
  EXPECT_EQ(test::pauses().back(), kAfterLaunchd_us);
}

TEST_F(installation, service_that_comes_back_within_200_ms_is_not_uninstalled) {
  test::on_pause([](unsigned long long us) {
    if (us == kAfterLaunchd_us) test::make_file(test::daemon_file("abc"));
  });
  EXPECT_FALSE(uninstallService("abc"));
}

TEST_F(installation, service_of_no_session_is_not_uninstalled) {
  test::make_file(test::daemon_file(""));
  for (const nil_string& id : kNoSessions) EXPECT_FALSE(uninstallService(id));
  EXPECT_TRUE(test::exists(test::daemon_file("")));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

TEST_F(installation, removal_takes_job_file_folder_and_job) {
  test::make_file(test::daemon_file("abc"));
  test::make_file(test::session_file("abc"));
  uninstallServiceRemove("abc");
  EXPECT_FALSE(test::exists(test::daemon_file("abc")));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
  EXPECT_TRUE(test::exists("/Library/VeskRuntime/sessions"));
  EXPECT_THAT(test::log_of("uninstallServiceRemove"), ElementsAre("Removing all related files"));
  EXPECT_THAT(test::launchctl_calls(), ElementsAre("unload -w " + test::daemon_file("abc")));
}

TEST_F(installation, removal_asks_launchd_when_job_file_and_folder_are_gone) {
  test::make_file(test::daemon_file("abc"));
  test::make_file(test::session_file("abc"));
  bool gone = true;
  test::on_pause([&gone](unsigned long long) {
    gone = gone && !test::exists(test::daemon_file("abc")) &&
           !test::exists("/Library/VeskRuntime/sessions/abc");
  });
  uninstallServiceRemove("abc");
  EXPECT_TRUE(gone);
  EXPECT_FALSE(test::pauses().empty());
}

TEST_F(installation, removal_leaves_other_sessions_and_the_agent_alone) {
  test::make_file(test::daemon_file("abc"));
  test::make_file(test::session_file("abc"));
  for (const std::string& file :
       {test::agent_file("abc"), test::daemon_file("abcd"), test::session_file("abcd")})
    test::make_file(file);
  uninstallServiceRemove("abc");
  EXPECT_TRUE(test::exists(test::agent_file("abc")));
  EXPECT_TRUE(test::exists(test::daemon_file("abcd")));
  EXPECT_TRUE(test::exists(test::session_file("abcd")));
}

TEST_F(installation, removal_ends_at_a_missing_job_file) {
  test::make_file(test::session_file("abc"));
  uninstallServiceRemove("abc");
  EXPECT_THAT(test::log_of("uninstallServiceRemove"),
              ElementsAre("Removing all related files",
                          "Failed to remove launchd daemon plist: No such file or directory"));
  EXPECT_TRUE(test::exists(test::session_file("abc")));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

TEST_F(installation, removal_ends_at_a_missing_folder) {
  test::make_file(test::daemon_file("abc"));
  uninstallServiceRemove("abc");
  EXPECT_FALSE(test::exists(test::daemon_file("abc")));
  EXPECT_THAT(test::log_of("uninstallServiceRemove"),
              Contains("Failed to remove launchd daemon plist: No such file or directory"));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

TEST_F(installation, removal_survives_any_exception) {
  test::make_file(test::daemon_file("abc"));
  test::make_file(test::session_file("abc"));
  throw_at_pause();
  EXPECT_NO_THROW(uninstallServiceRemove("abc"));
  EXPECT_EQ(test::log_of("uninstallServiceRemove").size(), 2U);
}

TEST_F(installation, removal_of_no_session_removes_nothing) {
  test::make_file(test::daemon_file(""));
  test::make_file(test::session_file("abc"));
  for (const nil_string& id : kNoSessions) uninstallServiceRemove(id);
  EXPECT_TRUE(test::exists(test::daemon_file("")));
  EXPECT_TRUE(test::exists(test::session_file("abc")));
  EXPECT_EQ(
      test::log_of("uninstallServiceRemove"),
      test::lines(kNoSessions.size(), "Failed to remove launchd daemon plist: Invalid argument"));
}

// The log's file may lie in the folder, beside the helper copy. The open file shows what was in it
// when the folder went; the lines before keep the log's thread busy.
TEST_F(installation, removal_waits_for_the_log_before_the_folder_goes) {
  const std::string log_file = "/Library/VeskRuntime/sessions/abc/helper/korvel_helper.out";
  test::make_file(test::daemon_file("abc"));
  test::make_file(log_file, "");
  const muro::unique_fd kept(::open(log_file.c_str(), O_RDONLY | O_CLOEXEC));
  muro::errlog::set_log_file(log_file);
  for (int i = 0; i < 5000; ++i) muro::fmt_dbg("test").fmt_verbose("line %1%", i);
  uninstallServiceRemove("abc");
  test::log_to_default_file();
  EXPECT_THAT(test::content_of("/proc/self/fd/" + std::to_string(kept.get())),
              HasSubstr("uninstallServiceRemove: Removing all related files\n"));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
}

// A link in place of the session folder: only the link goes.
TEST_F(installation, removal_follows_no_link) {
  test::make_file(test::daemon_file("abc"));
  test::make_file("/opt/precious");
  std::filesystem::create_directories("/Library/VeskRuntime/sessions");
  std::filesystem::create_directory_symlink("/opt", "/Library/VeskRuntime/sessions/abc");
  uninstallServiceRemove("abc");
  EXPECT_TRUE(test::exists("/opt/precious"));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
}

}  // namespace
