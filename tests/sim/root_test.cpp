// What a test program finds when its main has put it into a Mac root.

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstdlib>
#include <string>

namespace {

uid_t owner(const char* path) {
  struct stat info {};
  return ::stat(path, &info) == 0 ? info.st_uid : static_cast<uid_t>(-1);
}

TEST(mac_root, test_is_root_but_not_process_1) {
  EXPECT_EQ(::getuid(), 0u);
  EXPECT_GT(::getpid(), 1);
  EXPECT_EQ(::getppid(), 1);
}

TEST(mac_root, login_records_are_there_and_empty) {
  EXPECT_EQ(::access("/var/run/utmp", R_OK), 0);
  ::setutxent();
  EXPECT_EQ(::getutxent(), nullptr);
  ::endutxent();
}

TEST(mac_root, login_record_that_a_test_writes_is_read_back) {
  utmpx record{};
  record.ut_type = USER_PROCESS;
  record.ut_pid = 77;
  std::string("console").copy(record.ut_line, sizeof record.ut_line);
  std::string("alice").copy(record.ut_user, sizeof record.ut_user);
  ::setutxent();
  ASSERT_NE(::pututxline(&record), nullptr);
  ::setutxent();
  const utmpx* found = ::getutxent();
  ASSERT_NE(found, nullptr);
  EXPECT_STREQ(found->ut_user, "alice");
  ::endutxent();
}

TEST(mac_root, users_have_homes) {
  const passwd* alice = ::getpwnam("alice");
  ASSERT_NE(alice, nullptr);
  EXPECT_EQ(alice->pw_uid, 501u);
  EXPECT_EQ(::access(alice->pw_dir, X_OK), 0);
}

TEST(mac_root, console_is_owned_by_root_at_the_login_window) {
  EXPECT_EQ(owner("/dev/console"), 0u);
}

TEST(mac_root, client_and_job_folders_are_there) {
  EXPECT_EQ(::access("/Applications/Korvel.app/Contents/MacOS/korvel", X_OK), 0);
  EXPECT_EQ(::access("/Library/LaunchAgents", W_OK), 0);
  EXPECT_EQ(::access("/Library/LaunchDaemons", W_OK), 0);
}

TEST(mac_root, usr_is_read_only_and_bin_is_not) {
  EXPECT_NE(::access("/usr/bin", W_OK), 0);
  EXPECT_EQ(::access("/bin", W_OK), 0);
}

TEST(mac_root, environment_is_launchds) {
  EXPECT_STREQ(std::getenv("PATH"), "/usr/bin:/bin:/usr/sbin:/sbin");
  EXPECT_EQ(std::getenv("HOME"), nullptr);
}

TEST(mac_root, sudo_changes_the_user) {
  EXPECT_EQ(std::system("test \"$(/usr/bin/sudo -u '#0' id -u)\" = 0"), 0);
}

}  // namespace
