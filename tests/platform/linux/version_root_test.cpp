#include <gtest/gtest.h>

#include <filesystem>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr const char* kFile = "/System/Library/CoreServices/SystemVersion.plist";

// A well-formed version file of that many bytes.
std::string version_file_of(std::size_t size) {
  const std::string head = "<plist><dict><key>ProductVersion</key><string>10.9</string><!-- ";
  const std::string tail = " --></dict></plist>";
  return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

platform::nil_string version_in_file_of(std::size_t size) {
  std::filesystem::remove(kFile);
  test::write_file(kFile, version_file_of(size));
  return platform::product_version();
}

TEST(linux_product_version, is_read_from_files_up_to_64_kib) {
  EXPECT_EQ(version_in_file_of(65536), "10.9");
  EXPECT_EQ(version_in_file_of(65537), std::nullopt);
}

TEST(linux_product_version, is_nil_for_a_folder_in_the_files_place) {
  std::filesystem::remove(kFile);
  std::filesystem::create_directory(kFile);
  EXPECT_EQ(platform::product_version(), std::nullopt);
  std::filesystem::remove(kFile);
}

}  // namespace
