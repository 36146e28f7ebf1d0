#include "muro/sys/strings.h"

#include <gtest/gtest.h>

namespace {

using pieces = std::vector<std::string>;

struct replaced {
  bool any;
  std::string text;
  bool operator==(const replaced&) const = default;
};

replaced replace(std::string s, const std::string& from, const std::string& to) {
  const bool any = replace_all(s, from, to);
  return {any, s};
}

pieces tokens(const std::string& s, char sep) {
  pieces out;
  tokenize(&out, s, sep);
  return out;
}

}  // namespace

TEST(replace_all, replaces_every_occurrence) {
  EXPECT_EQ(replace("a-b-c", "-", "::"), (replaced{true, "a::b::c"}));
}

TEST(replace_all, goes_left_to_right_without_overlap) {
  EXPECT_EQ(replace("aaaaa", "aa", "b"), (replaced{true, "bba"}));
}

TEST(replace_all, does_not_search_what_it_put_in) {
  EXPECT_EQ(replace("ab", "a", "aa"), (replaced{true, "aab"}));
}

TEST(replace_all, can_remove) {
  EXPECT_EQ(replace("x.dat", ".dat", ""), (replaced{true, "x"}));
}

TEST(replace_all, replaces_a_whole_text) {
  EXPECT_EQ(replace("from", "from", "to"), (replaced{true, "to"}));
}

TEST(replace_all, counts_a_replacement_by_the_same_text) {
  EXPECT_EQ(replace("aba", "a", "a"), (replaced{true, "aba"}));
}

TEST(replace_all, without_a_hit_returns_false_and_leaves_the_text) {
  EXPECT_EQ(replace("abc", "x", "y"), (replaced{false, "abc"}));
  EXPECT_EQ(replace("", "x", "y"), (replaced{false, ""}));
  EXPECT_EQ(replace("ab", "abc", "y"), (replaced{false, "ab"}));
}

TEST(replace_all, refuses_an_empty_search_text) {
  EXPECT_EQ(replace("abc", "", "y"), (replaced{false, "abc"}));
}

TEST(replace_all, takes_its_own_text_as_search_and_replacement) {
  std::string s = "a";
  EXPECT_TRUE(replace_all(s, s, s));
  EXPECT_EQ(s, "a");
}

TEST(replace_all, treats_zero_bytes_as_bytes) {
  EXPECT_EQ(replace(std::string("a\0b", 3), std::string("\0", 1), "-"), (replaced{true, "a-b"}));
}

TEST(tokenize, keeps_empty_pieces) {
  EXPECT_EQ(tokens("a,,b", ','), (pieces{"a", "", "b"}));
}

TEST(tokenize, of_nothing_gives_one_empty_piece) {
  EXPECT_EQ(tokens("", ','), (pieces{""}));
}

TEST(tokenize, always_appends_the_last_piece) {
  EXPECT_EQ(tokens("a,", ','), (pieces{"a", ""}));
  EXPECT_EQ(tokens(",", ','), (pieces{"", ""}));
  EXPECT_EQ(tokens("abc", ','), (pieces{"abc"}));
}

TEST(tokenize, appends_to_what_is_there) {
  pieces out{"kept"};
  tokenize(&out, "a b", ' ');
  EXPECT_EQ(out, (pieces{"kept", "a", "b"}));
}

TEST(tokenize, splits_at_zero_bytes) {
  EXPECT_EQ(tokens(std::string("a\0b", 3), '\0'), (pieces{"a", "b"}));
}

TEST(starts_with, compares_the_front) {
  EXPECT_TRUE(starts_with("/dev/console", "/dev/"));
  EXPECT_TRUE(starts_with("abc", "abc"));
  EXPECT_TRUE(starts_with("abc", ""));
  EXPECT_FALSE(starts_with("abc", "bc"));
  EXPECT_FALSE(starts_with("abc", "Ab"));
}

TEST(starts_with, is_false_for_a_longer_prefix) {
  EXPECT_FALSE(starts_with("ab", "abc"));
  EXPECT_FALSE(starts_with("", "a"));
}

TEST(ends_with, compares_the_end) {
  EXPECT_TRUE(ends_with("x.dat", ".dat"));
  EXPECT_TRUE(ends_with("abc", "abc"));
  EXPECT_TRUE(ends_with("abc", ""));
  EXPECT_FALSE(ends_with("abc", "ab"));
  EXPECT_FALSE(ends_with("abc", "BC"));
}

TEST(ends_with, is_false_for_a_longer_suffix) {
  EXPECT_FALSE(ends_with("bc", "abc"));
  EXPECT_FALSE(ends_with("", "a"));
}

TEST(atoi, reads_the_number_at_the_front) {
  EXPECT_EQ(muro::atoi("42"), 42);
  EXPECT_EQ(muro::atoi("  42"), 42);
  EXPECT_EQ(muro::atoi("-7"), -7);
  EXPECT_EQ(muro::atoi("12abc"), 12);
}

TEST(atoi, gives_0_for_what_is_no_number) {
  EXPECT_EQ(muro::atoi("abc"), 0);
  EXPECT_EQ(muro::atoi(""), 0);
}
