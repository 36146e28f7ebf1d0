#include "front/self_test.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/front/mac.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr const char* kFile = "/tmp/test1245.dat";
constexpr const char* kHelper = "/opt/korvel/korvel_helper";
constexpr const char* kLog = "/opt/korvel/korvel_helper.out";
constexpr const char* kPauses = "/opt/korvel/pauses";

class self_test : public test::mac {
 protected:
  self_test() {
    fs::create_directories("/opt/korvel");
    fs::copy_file(FRONT_PROBE, kHelper);
  }

  static int run(test::lines options = {"-test", "1"}) {
    options.insert(options.begin(), kHelper);
    return test::program(options, {std::string("FRONT_PAUSES=") + kPauses}).wait();
  }
};

TEST_F(self_test, test_file_holds_four_bytes) {
  createTestFile();
  EXPECT_EQ(test::content_of(kFile), "test");
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(self_test, test_file_replaces_an_old_one) {
  test::make_file(kFile, "an older and longer one");
  createTestFile();
  EXPECT_EQ(test::content_of(kFile), "test");
}

TEST_F(self_test, test_file_that_cannot_be_made_is_told) {
  fs::create_directory(kFile);
  createTestFile();
  EXPECT_THAT(test::log_lines(), ElementsAre("createTestFile: Failed to create test file"));
}

TEST_F(self_test, test_file_is_not_written_through_a_link) {
  test::make_file("/opt/victim", "kept");
  fs::create_symlink("/opt/victim", kFile);
  createTestFile();
  EXPECT_THAT(test::log_lines(), ElementsAre("createTestFile: Failed to create test file"));
  EXPECT_EQ(test::content_of("/opt/victim"), "kept");
}

TEST_F(self_test, test_file_with_a_second_name_is_not_written) {
  test::make_file("/private/tmp/victim", "kept");
  fs::create_hard_link("/private/tmp/victim", kFile);
  createTestFile();
  EXPECT_THAT(test::log_lines(), ElementsAre("createTestFile: Failed to create test file"));
  EXPECT_EQ(test::content_of("/private/tmp/victim"), "kept");
  test::remove_tree("/private/tmp/victim");
}

TEST_F(self_test, test_file_that_is_a_pipe_does_not_block) {
  ASSERT_EQ(::mkfifo(kFile, 0666), 0);
  createTestFile();
  EXPECT_THAT(test::log_lines(), ElementsAre("createTestFile: Failed to create test file"));
}

TEST_F(self_test, test_file_that_is_a_link_to_nowhere_makes_no_file_there) {
  fs::create_symlink("/opt/made", kFile);
  createTestFile();
  EXPECT_FALSE(test::exists("/opt/made"));
}

TEST_F(self_test, moving_moves_the_file_and_deletes_the_folder) {
  createTestFile();
  testMoveFile();
  EXPECT_FALSE(test::exists(kFile));
  EXPECT_FALSE(test::exists(kTestSessionFolder));
  EXPECT_TRUE(test::exists("/Library/VeskRuntime/sessions"));
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(self_test, whole_run_exits_with_0_and_leaves_nothing) {
  test::install_client();
  test::make_file(test::agent_file("test1245"));
  EXPECT_EQ(run(), 0);
  EXPECT_FALSE(test::exists(kFile));
  EXPECT_FALSE(test::exists(kTestSessionFolder));
  EXPECT_FALSE(test::exists(test::agent_file("test1245")));
  EXPECT_FALSE(test::exists(test::daemon_file("test1245")));
  EXPECT_FALSE(test::exists(kHelper)) << "the helper is gone from where it was started";
  EXPECT_TRUE(test::exists(test::kClientExecutable));
  // Started detached and without the pauses between: in any order.
  EXPECT_THAT(test::launchctl_calls(),
              UnorderedElementsAre("load -w " + test::daemon_file("test1245"),
                                   "unload -w " + test::daemon_file("test1245")));
}

TEST_F(self_test, stays_installed_for_ten_seconds) {
  test::install_client();
  run();
  EXPECT_THAT(test::content_of(kPauses), HasSubstr("\n200000\n10000000\n"));
}

TEST_F(self_test, wins_over_every_other_option) {
  test::install_client();
  test::make_file("/tmp/abc.dat");
  EXPECT_EQ(run({"-runInstall", "1", "-restoreFile", "/tmp/abc.dat", "-test", "1"}), 0);
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
  EXPECT_THAT(test::tree("/Library/LaunchDaemons"), IsEmpty());
  EXPECT_THAT(test::content_of(kPauses), HasSubstr("10000000\n"));
}

TEST_F(self_test, without_a_client_exits_with_1_and_tells_why) {
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(
      test::content_of(kLog),
      HasSubstr(
          "testInstantVersion: Failed to install service while simulating instant app rnr\n"));
}

TEST_F(self_test, second_run_removes_what_a_failed_one_left) {
  EXPECT_EQ(run(), 1);
  EXPECT_TRUE(test::exists(kTestSessionFolder));
  fs::copy_file(FRONT_PROBE, kHelper);
  test::install_client();
  EXPECT_EQ(run(), 0);
  EXPECT_FALSE(test::exists(kTestSessionFolder));
}

TEST_F(self_test, file_that_cannot_be_moved_exits_with_1_and_tells_why) {
  test::make_file("/Library/VeskRuntime");
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(test::content_of(kLog), HasSubstr("testMoveFile: Failed to move restore file\n"));
}

TEST_F(self_test, file_that_cannot_be_made_fails_in_the_next_step) {
  fs::create_symlink("nowhere", kFile);
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(test::content_of(kLog), HasSubstr("createTestFile: Failed to create test file\n"));
  EXPECT_THAT(test::content_of(kLog), HasSubstr("testMoveFile: Failed to move restore file\n"));
}

}  // namespace
