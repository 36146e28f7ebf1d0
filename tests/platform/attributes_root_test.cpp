#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/platform.h"
#include "tests/platform/known_differences.h"
#include "tests/support/root_users.h"
#include "tests/support/temp_dir.h"

namespace {

struct stat status_of(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) throw std::runtime_error("lstat " + path);
  return status;
}

class set_attributes : public testing::Test {
 protected:
  void SetUp() override {
    KORVEL_NEEDS_USERS();
    test::write_file(item_, "x");
  }

  test::temp_dir folder_;
  std::string item_ = folder_ / "item";
};

TEST_F(set_attributes, sets_mode_owner_and_group) {
  ASSERT_EQ(::chown(item_.c_str(), 501, 20), 0);
  EXPECT_TRUE(platform::set_attributes(item_, 0777, "root", "admin").ok);
  EXPECT_EQ(status_of(item_).st_mode & 07777, 0777U);
  EXPECT_EQ(status_of(item_).st_uid, 0U);
  EXPECT_EQ(status_of(item_).st_gid, 80U);
}

TEST_F(set_attributes, follows_a_link) {
  std::filesystem::create_symlink(item_, folder_ / "link");
  EXPECT_TRUE(platform::set_attributes(folder_ / "link", 0777, "root", "admin").ok);
  EXPECT_EQ(status_of(item_).st_gid, 80U);
  EXPECT_NE(status_of(folder_ / "link").st_gid, 80U);
}

TEST_F(set_attributes, unknown_owner_is_a_failure) {
  // GNUstep gives the item to an owner that it does not name.
  EXPECT_EQ(platform::set_attributes(item_, 0777, "nobody here", "admin").ok, test::kOnGnustep);
}

TEST_F(set_attributes, unknown_group_is_a_failure) {
  // GNUstep gives the item to a group that it does not name.
  EXPECT_EQ(platform::set_attributes(item_, 0777, "root", "no group").ok, test::kOnGnustep);
}

TEST_F(set_attributes, works_on_a_folder) {
  EXPECT_TRUE(platform::set_attributes(folder_.path(), 0777, "root", "admin").ok);
  EXPECT_EQ(status_of(folder_.path()).st_mode & 07777, 0777U);
  EXPECT_EQ(status_of(folder_.path()).st_gid, 80U);
}

}  // namespace
