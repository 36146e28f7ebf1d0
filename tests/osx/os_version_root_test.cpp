#include "osx/os_version.h"

#include <string>

#include "platform/platform.h"
#include "tests/osx/mac.h"

namespace {

class os_version : public test::mac {
 protected:
  std::string version() {
    int major = -1;
    int minor = -1;
    const int bugfix = muro::os_version_osx(major, minor);
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(bugfix);
  }

  std::string version_of(const std::string& text) {
    set_release(text);
    return version();
  }
};

}  // namespace

TEST_F(os_version, has_three_numbers) {
  EXPECT_EQ(version_of("11.2.3"), "11.2.3");
  EXPECT_EQ(version_of("10.9.5"), "10.9.5");
}

TEST_F(os_version, a_missing_number_is_zero) {
  EXPECT_EQ(version_of("12"), "12.0.0");
  EXPECT_EQ(version_of("10.10"), "10.10.0");
}

TEST_F(os_version, further_numbers_are_ignored) {
  EXPECT_EQ(version_of("10.15.7.1"), "10.15.7");
}

TEST_F(os_version, a_piece_that_is_no_number_is_zero) {
  EXPECT_EQ(version_of("x.11.y"), "0.11.0");
  EXPECT_EQ(version_of("10..3"), "10.0.3");
  EXPECT_EQ(version_of("."), "0.0.0");
}

TEST_F(os_version, a_number_ends_where_its_digits_end) {
  EXPECT_EQ(version_of("10.12beta.3"), "10.12.3");
}

TEST_F(os_version, without_a_text_the_selectors_or_the_oldest_release_answer) {
  int major = 10;
  int minor = 4;
  int bugfix = 0;
  platform::older_version_selector(0x73797331, major);
  platform::older_version_selector(0x73797332, minor);
  platform::older_version_selector(0x73797333, bugfix);
  const std::string fallback =
      std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(bugfix);
  EXPECT_EQ(version_of(""), fallback);
  test::write_file("/System/Library/CoreServices/SystemVersion.plist", "no property list");
  EXPECT_EQ(version(), fallback);
  std::filesystem::remove("/System/Library/CoreServices/SystemVersion.plist");
  EXPECT_EQ(version(), fallback);
}

TEST_F(os_version, is_read_anew_at_each_call) {
  EXPECT_EQ(version_of("10.9.5"), "10.9.5");
  EXPECT_EQ(version_of("10.10.5"), "10.10.5");
}

TEST_F(os_version, a_later_major_release_is_later_whatever_its_minor) {
  set_release("11.2.3");
  EXPECT_TRUE(osx::is_os_version_or_later(10, 10));
  EXPECT_TRUE(osx::is_os_version_or_later(11, 2));
  EXPECT_FALSE(osx::is_os_version_or_later(11, 3));
  EXPECT_FALSE(osx::is_os_version_or_later(12, 0));
}

TEST_F(os_version, minor_releases_compare_as_numbers) {
  set_release("10.9.5");
  EXPECT_FALSE(osx::is_os_version_or_later(10, 10));
  EXPECT_TRUE(osx::is_os_version_or_later(10, 9));
  EXPECT_TRUE(osx::is_os_version_or_later(9, 99));
}
