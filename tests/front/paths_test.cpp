#include "front/paths.h"

#include <gtest/gtest.h>

namespace {

TEST(lastPathComponent, is_what_follows_the_last_slash) {
  EXPECT_EQ(lastPathComponent("/Applications/Korvel.app"), "Korvel.app");
  EXPECT_EQ(lastPathComponent("Korvel.app"), "Korvel.app");
}

TEST(lastPathComponent, does_not_count_slashes_at_the_end) {
  EXPECT_EQ(lastPathComponent("/a/b.app/"), "b.app");
  EXPECT_EQ(lastPathComponent("/a/b.app///"), "b.app");
}

TEST(lastPathComponent, of_the_root_is_the_root) {
  EXPECT_EQ(lastPathComponent("/"), "/");
  EXPECT_EQ(lastPathComponent("//"), "/");
}

TEST(lastPathComponent, of_nothing_is_nothing) {
  EXPECT_EQ(lastPathComponent(""), "");
}

TEST(appendPathComponent, puts_one_slash_between) {
  EXPECT_EQ(appendPathComponent("/a/b", "c"), "/a/b/c");
  EXPECT_EQ(appendPathComponent("/a/b/", "c"), "/a/b/c");
  EXPECT_EQ(appendPathComponent("/", "c"), "/c");
}

}  // namespace
