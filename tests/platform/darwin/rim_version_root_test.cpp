#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "platform/platform.h"
#include "tests/platform/darwin/fake/mac.h"
#include "tests/support/temp_dir.h"

namespace {

using fake::world;

constexpr const char* kFolder = "/System/Library/CoreServices";
constexpr const char* kFile = "/System/Library/CoreServices/SystemVersion.plist";

std::string version_file(const std::string& value) {
  return "<plist version=\"1.0\"><dict><key>ProductVersion</key>" + value + "</dict></plist>";
}

/// One reading of the version file, after which nothing may be left or released twice.
class product_version_objects : public testing::Test {
 protected:
  void SetUp() override {
    fake::reset();
    holds(version_file("<string>10.11.6</string>"));
  }
  void TearDown() override {
    EXPECT_EQ(world().live_objects, 0);
    EXPECT_EQ(world().wrong_releases, 0);
  }

  static void holds(const std::string& content) {
    std::filesystem::create_directories(kFolder);
    std::filesystem::remove(kFile);
    test::write_file(kFile, content);
  }

  static platform::nil_string version_when(const std::string& failing) {
    world().failing = {failing};
    return platform::product_version();
  }

  static bool called(const std::string& call) {
    const auto& calls = world().calls;
    return std::find(calls.begin(), calls.end(), call) != calls.end();
  }
};

TEST_F(product_version_objects, are_released_after_success) {
  EXPECT_EQ(platform::product_version(), "10.11.6");
}

TEST_F(product_version_objects, are_asked_for_in_order_with_these_arguments) {
  platform::product_version();
  EXPECT_EQ(world().calls,
            (std::vector<std::string>{
                std::string("CFURLCreateFromFileSystemRepresentation ") + kFile + " file",
                "CFURLCreateDataAndPropertiesFromResource data",
                "CFPropertyListCreateFromXMLData immutable", "CFStringCreateWithCString UTF-8",
                "CFDictionaryGetValue ProductVersion", "CFStringGetCStringPtr UTF-8"}));
}

TEST_F(product_version_objects, are_released_when_no_url_is_made) {
  EXPECT_EQ(version_when("CFURLCreateFromFileSystemRepresentation"), std::nullopt);
  EXPECT_EQ(world().calls.size(), 1U);
}

TEST_F(product_version_objects, are_released_when_the_file_cannot_be_read) {
  EXPECT_EQ(version_when("CFURLCreateDataAndPropertiesFromResource"), std::nullopt);
}

TEST_F(product_version_objects, are_released_when_the_file_is_missing) {
  std::filesystem::remove(kFile);
  EXPECT_EQ(platform::product_version(), std::nullopt);
}

TEST_F(product_version_objects, are_released_when_reading_gives_nothing) {
  EXPECT_EQ(version_when("read nothing"), std::nullopt);
}

TEST_F(product_version_objects, are_released_when_reading_fails_half_way) {
  EXPECT_EQ(version_when("read in part"), std::nullopt);
  EXPECT_FALSE(called("CFPropertyListCreateFromXMLData immutable"));
}

TEST_F(product_version_objects, are_released_with_the_reason_of_an_unreadable_list) {
  holds("no list");
  EXPECT_EQ(platform::product_version(), std::nullopt);
}

TEST_F(product_version_objects, are_released_when_the_root_is_no_dictionary) {
  holds("<plist version=\"1.0\"><array/></plist>");
  EXPECT_EQ(platform::product_version(), std::nullopt);
}

TEST_F(product_version_objects, are_released_when_no_key_is_made) {
  EXPECT_EQ(version_when("CFStringCreateWithCString"), std::nullopt);
}

TEST_F(product_version_objects, are_released_without_a_value) {
  EXPECT_EQ(version_when("CFDictionaryGetValue"), std::nullopt);
}

TEST_F(product_version_objects, are_released_when_the_value_is_no_string) {
  holds(version_file("<integer>10</integer>"));
  EXPECT_EQ(platform::product_version(), std::nullopt);
}

TEST_F(product_version_objects, text_kept_in_another_form_is_copied_into_256_bytes) {
  EXPECT_EQ(version_when("CFStringGetCStringPtr"), "10.11.6");
  EXPECT_EQ(world().calls.back(), "CFStringGetCString 256 UTF-8");
}

TEST_F(product_version_objects, text_that_fits_the_copy_to_the_last_byte_comes_whole) {
  holds(version_file("<string>" + std::string(255, '1') + "</string>"));
  EXPECT_EQ(version_when("CFStringGetCStringPtr"), std::string(255, '1'));
}

TEST_F(product_version_objects, text_is_empty_where_the_copy_fails) {
  holds(version_file("<string>" + std::string(256, '1') + "</string>"));
  EXPECT_EQ(version_when("CFStringGetCStringPtr"), "");
}

TEST_F(product_version_objects, text_of_any_length_comes_whole_without_a_copy) {
  holds(version_file("<string>" + std::string(1000, '1') + "</string>"));
  EXPECT_EQ(platform::product_version(), std::string(1000, '1'));
}

}  // namespace
