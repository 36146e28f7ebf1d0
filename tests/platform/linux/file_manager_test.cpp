// Where the Linux side has to choose: the text of a failure, odd items.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

class linux_file_manager : public testing::Test {
 protected:
  std::string at(const std::string& name) const { return folder_ / name; }
  test::temp_dir folder_;
};

TEST_F(linux_file_manager, tells_a_failure_with_the_systems_text) {
  test::write_file(at("file"), "x");
  EXPECT_EQ(platform::create_folder(at("file"), 0777).description, std::strerror(EEXIST));
  EXPECT_EQ(platform::create_folder(at("file/a"), 0777).description, std::strerror(EEXIST));
  EXPECT_EQ(platform::copy_item(at("none"), at("to")).description, std::strerror(ENOENT));
  EXPECT_EQ(platform::copy_item(at("file"), at("file")).description, std::strerror(EEXIST));
}

TEST_F(linux_file_manager, zero_byte_in_a_path_is_a_failure_and_acts_on_nothing) {
  const std::string odd = at("cut") + std::string("\0x", 2);
  EXPECT_FALSE(platform::create_folder(odd, 0777).ok);
  EXPECT_FALSE(fs::exists(at("cut")));
  EXPECT_FALSE(platform::copy_item(folder_.path(), odd).ok);
}

TEST_F(linux_file_manager, does_not_copy_a_folder_into_itself) {
  fs::create_directory(at("tree"));
  const auto outcome = platform::copy_item(at("tree"), at("tree/copy"));
  EXPECT_EQ(outcome.description, std::strerror(EINVAL));
  EXPECT_TRUE(fs::is_empty(at("tree")));
}

TEST_F(linux_file_manager, copies_beside_a_folder_of_which_the_name_is_a_part) {
  fs::create_directory(at("tree"));
  fs::create_directory(at("tree2"));
  EXPECT_TRUE(platform::copy_item(at("tree"), at("tree2/copy")).ok);
}

TEST_F(linux_file_manager, refuses_to_copy_what_is_no_file_folder_or_link) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  EXPECT_EQ(platform::copy_item(at("pipe"), at("to")).description, std::strerror(ENOTSUP));
}

TEST_F(linux_file_manager, dangling_link_at_the_place_of_a_folder_is_a_failure) {
  fs::create_symlink("nowhere", at("link"));
  EXPECT_FALSE(platform::create_folder(at("link"), 0777).ok);
  EXPECT_FALSE(fs::exists(at("nowhere")));
}

}  // namespace
