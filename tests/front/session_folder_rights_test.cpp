#include "front/session_folder_rights.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "muro/sys/files.h"
#include "tests/front/mac.h"
#include "tests/support/root_users.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr mode_t kOpen = 0777;
constexpr gid_t kAdmin = 80;

/// A bundle copy "/opt/app/b" in which somebody else has been.
class bundle_rights : public test::mac {
 protected:
  void SetUp() override {
    KORVEL_NEEDS_USERS();
    test::make_file("/opt/app/b/item");
    test::make_file("/opt/victim/file", "kept");
    fs::permissions("/opt/victim", fs::perms(0700));
    fs::permissions("/opt/victim/file", fs::perms(0600));
  }

  static void open_all() { openBundleToAll(muro::fmt_dbg("moveAppBundle"), "/opt/app", "b"); }

  static void expect_open(const std::string& path) {
    const struct stat status = test::status_of(path);
    EXPECT_EQ(status.st_mode & 07777, kOpen) << path;
    EXPECT_EQ(status.st_uid, 0U) << path;
    EXPECT_EQ(status.st_gid, kAdmin) << path;
  }

  static void expect_victim_untouched() {
    EXPECT_EQ(test::mode_of("/opt/victim"), 0700U);
    EXPECT_EQ(test::mode_of("/opt/victim/file"), 0600U);
    EXPECT_EQ(test::status_of("/opt/victim/file").st_gid, 0U);
  }
};

TEST_F(bundle_rights, link_is_left_alone_and_so_is_what_it_leads_to) {
  fs::create_symlink("/opt/victim/file", "/opt/app/b/file");
  fs::create_directory_symlink("/opt/victim", "/opt/app/b/folder");
  ASSERT_EQ(::lchown("/opt/app/b/file", 501, 20), 0);
  open_all();
  expect_victim_untouched();
  EXPECT_EQ(test::status_of("/opt/app/b/file").st_uid, 501U);
  expect_open("/opt/app/b/item");
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(bundle_rights, link_in_place_of_the_bundle_is_left_alone) {
  test::remove_tree("/opt/app/b");
  fs::create_directory_symlink("/opt/victim", "/opt/app/b");
  open_all();
  expect_victim_untouched();
}

TEST_F(bundle_rights, file_with_a_second_name_is_not_touched) {
  fs::create_hard_link("/opt/victim/file", "/opt/app/b/file");
  open_all();
  expect_victim_untouched();
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveAppBundle: failed to set permissions for file:::Too many links"));
  expect_open("/opt/app/b/item");
}

TEST_F(bundle_rights, pipe_and_socket_are_not_touched_and_nothing_blocks) {
  ASSERT_EQ(::mkfifo("/opt/app/b/pipe", 0600), 0);
  open_all();
  EXPECT_EQ(test::mode_of("/opt/app/b/pipe"), 0600U);
  EXPECT_THAT(
      test::log_lines(),
      ElementsAre("moveAppBundle: failed to set permissions for pipe:::Operation not supported"));
  expect_open("/opt/app/b/item");
}

TEST_F(bundle_rights, bundle_that_is_a_single_file_is_opened) {
  fs::rename("/opt/app/b/item", "/opt/app/c");
  openBundleToAll(muro::fmt_dbg("moveAppBundle"), "/opt/app", "c");
  expect_open("/opt/app/c");
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(bundle_rights, missing_bundle_is_told) {
  openBundleToAll(muro::fmt_dbg("moveAppBundle"), "/opt/app", "none");
  openBundleToAll(muro::fmt_dbg("moveAppBundle"), "/opt/none", "b");
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveAppBundle: failed to set permission No such file or directory",
                          "moveAppBundle: failed to set permission No such file or directory"));
}

TEST_F(bundle_rights, set_user_id_bits_go) {
  fs::permissions("/opt/app/b/item", fs::perms(06755));
  open_all();
  expect_open("/opt/app/b/item");
}

TEST_F(bundle_rights, tree_deeper_than_a_path_may_be_is_opened_to_the_last) {
  const fs::path before = fs::current_path();
  const std::string level(200, 'd');
  fs::current_path("/opt/app/b");
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(::mkdir(level.c_str(), 0700), 0);
    ASSERT_EQ(::chdir(level.c_str()), 0);
  }
  open_all();
  struct stat last {};
  ASSERT_EQ(::stat(".", &last), 0);
  fs::current_path(before);
  muro::delete_recursive("/opt/app");  // too deep for anyone else's clean-up
  EXPECT_EQ(last.st_mode & 07777, kOpen);
  EXPECT_EQ(last.st_gid, kAdmin);
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

}  // namespace
