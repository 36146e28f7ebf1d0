#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/darwin/newer_calls.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

/// The private root gets what a Mac's has: every folder by its numbers.
class path_of_folder : public testing::Test {
 protected:
  void SetUp() override {
    struct stat status;
    ASSERT_EQ(::stat(dir_.path().c_str(), &status), 0);
    const std::string device = "/.vol/" + std::to_string(status.st_dev);
    by_numbers_ = device + "/" + std::to_string(status.st_ino);
    fs::create_directories(device);
  }
  void TearDown() override { fs::remove_all("/.vol"); }

  std::string found() const {
    const platform::descriptor folder(platform::open_folder(dir_.path()));
    return platform::detail::path_of_folder(folder.get(), "/the/path");
  }

  test::temp_dir dir_;
  std::string by_numbers_;
};

TEST_F(path_of_folder, is_by_its_numbers_where_they_lead_to_it) {
  fs::create_directory_symlink(dir_.path(), by_numbers_);
  EXPECT_EQ(found(), by_numbers_);
}

TEST_F(path_of_folder, is_the_given_one_where_the_numbers_lead_elsewhere) {
  fs::create_directory(by_numbers_);
  EXPECT_EQ(found(), "/the/path");
}

}  // namespace
