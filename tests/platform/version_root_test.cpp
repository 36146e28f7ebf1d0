#include <gtest/gtest.h>

#include <filesystem>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr const char* kFolder = "/System/Library/CoreServices";
constexpr const char* kFile = "/System/Library/CoreServices/SystemVersion.plist";

platform::nil_string version_in(const std::string& content) {
  std::filesystem::create_directories(kFolder);
  std::filesystem::remove(kFile);
  test::write_file(kFile, content);
  return platform::product_version();
}

std::string plist(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n" +
         body + "\n</plist>\n";
}

std::string entry(const std::string& value) {
  return plist(
      "<dict><key>ProductName</key><string>Mac OS X</string>"
      "<key>ProductVersion</key>" +
      value + "</dict>");
}

TEST(product_version, is_the_string_of_that_key) {
  EXPECT_EQ(version_in(entry("<string>10.11.6</string>")), "10.11.6");
}

TEST(product_version, is_read_anew_at_each_call) {
  version_in(entry("<string>10.9</string>"));
  EXPECT_EQ(version_in(entry("<string>14.5</string>")), "14.5");
}

TEST(product_version, resolves_entities_and_passes_comments_over) {
  EXPECT_EQ(version_in(entry("<!-- v --><string>1&#48;.&#x39;&amp;</string>")), "10.9&");
}

TEST(product_version, may_be_empty) {
  EXPECT_EQ(version_in(entry("<string></string>")), "");
}

TEST(product_version, is_nil_without_the_file) {
  std::filesystem::remove(kFile);
  EXPECT_EQ(platform::product_version(), std::nullopt);
}

TEST(product_version, is_nil_without_the_key) {
  EXPECT_EQ(version_in(plist("<dict><key>Other</key><string>1</string></dict>")), std::nullopt);
}

TEST(product_version, is_nil_for_another_kind_of_value) {
  EXPECT_EQ(version_in(entry("<integer>10</integer>")), std::nullopt);
  EXPECT_EQ(version_in(entry("<array><string>10</string></array>")), std::nullopt);
}

TEST(product_version, is_nil_when_the_root_is_no_dictionary) {
  EXPECT_EQ(version_in(plist("<array><string>ProductVersion</string></array>")), std::nullopt);
  EXPECT_EQ(version_in(plist("<string>10.9</string>")), std::nullopt);
}

TEST(product_version, is_nil_for_a_broken_file) {
  EXPECT_EQ(version_in(""), std::nullopt);
  EXPECT_EQ(version_in("\x01\x02 no list"), std::nullopt);
  EXPECT_EQ(version_in(plist("<dict><key>ProductVersion</key><string>10.9</dict>")), std::nullopt);
}

}  // namespace
