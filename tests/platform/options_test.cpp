#include <gtest/gtest.h>

#include "tests/platform/probe.h"

namespace {

using words = test::probe::words;

std::string ask(const std::string& question, const std::string& key, const words& arguments) {
  test::probe probe(KORVEL_PROBE, arguments, {"PROBE=" + question, "PROBE_KEY=" + key});
  return probe.rest();
}

std::string flag(const words& arguments) {
  return ask("bool", "installed", arguments);
}
std::string text(const words& arguments) {
  return ask("string", "restoreFile", arguments);
}

struct value_case {
  const char* value;
  const char* expected;
};

void PrintTo(const value_case& one, std::ostream* out) {
  *out << '"' << one.value << '"';
}

class flag_value : public testing::TestWithParam<value_case> {};

TEST_P(flag_value, reads_as_user_defaults_do) {
  EXPECT_EQ(flag({"-installed", GetParam().value}), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(options, flag_value,
                         testing::Values(value_case{"1", "true"}, value_case{"YES", "true"},
                                         value_case{"yes", "true"}, value_case{"Yes", "true"},
                                         value_case{"true", "true"}, value_case{"TRUE", "true"},
                                         value_case{"True", "true"}, value_case{"2", "true"},
                                         value_case{"9", "true"}, value_case{"0", "false"},
                                         value_case{"NO", "false"}, value_case{"no", "false"},
                                         value_case{"false", "false"}, value_case{"FALSE", "false"},
                                         value_case{"", "false"}, value_case{"-1", "false"},
                                         value_case{"-x", "false"}));

TEST(options, absent_flag_is_false) {
  EXPECT_EQ(flag({}), "false");
}

TEST(options, absent_text_is_nil) {
  EXPECT_EQ(text({}), "nil");
}

TEST(options, text_is_the_word_after_its_key) {
  EXPECT_EQ(text({"-restoreFile", "/tmp/abc.dat"}), "=/tmp/abc.dat");
}

TEST(options, text_keeps_blanks_and_utf8) {
  EXPECT_EQ(text({"-restoreFile", "/tmp/my \xC3\xA4 file.dat"}), "=/tmp/my \xC3\xA4 file.dat");
}

TEST(options, empty_text_is_not_nil) {
  EXPECT_EQ(text({"-restoreFile", ""}), "=");
}

TEST(options, last_pair_of_a_key_wins) {
  EXPECT_EQ(text({"-restoreFile", "/a.dat", "-restoreFile", "/b.dat"}), "=/b.dat");
  EXPECT_EQ(flag({"-installed", "1", "-installed", "0"}), "false");
}

TEST(options, word_with_a_minus_is_never_a_value) {
  EXPECT_EQ(text({"-restoreFile", "-x"}), "nil");
  EXPECT_EQ(text({"-restoreFile", "-5"}), "nil");
}

TEST(options, key_without_a_value_leaves_the_next_key_its_own) {
  EXPECT_EQ(text({"-installed", "-restoreFile", "/x"}), "=/x");
  EXPECT_EQ(flag({"-installed", "-restoreFile", "/x"}), "false");
}

TEST(options, key_at_the_end_is_absent) {
  EXPECT_EQ(flag({"-installed"}), "false");
}

TEST(options, stray_words_and_unknown_keys_are_passed_over) {
  EXPECT_EQ(flag({"stray", "-unknown", "x", "more", "-installed", "1", "last"}), "true");
}

TEST(options, lone_minus_signs_are_passed_over) {
  EXPECT_EQ(flag({"-", "-installed", "1", "--"}), "true");
}

TEST(options, two_minus_signs_are_another_key) {
  EXPECT_EQ(flag({"--installed", "1"}), "false");
  EXPECT_EQ(ask("bool", "-installed", {"--installed", "1"}), "true");
}

TEST(options, keys_have_letter_case) {
  EXPECT_EQ(flag({"-Installed", "1"}), "false");
}

TEST(options, equals_sign_is_no_separator) {
  EXPECT_EQ(flag({"-installed=1"}), "false");
}

TEST(options, value_that_happens_to_be_a_key_name_is_a_value) {
  EXPECT_EQ(flag({"-restoreFile", "installed", "1"}), "false");
}

TEST(options, array_dictionary_and_data_are_no_text) {
  EXPECT_EQ(text({"-restoreFile", "(a,b)"}), "nil");
  EXPECT_EQ(text({"-restoreFile", "{}"}), "nil");
  EXPECT_EQ(text({"-restoreFile", "{a=b;}"}), "nil");
  EXPECT_EQ(text({"-restoreFile", "<0102>"}), "nil");
}

TEST(options, containers_are_no_flags) {
  EXPECT_EQ(flag({"-installed", "(1)"}), "false");
}

TEST(options, quoted_text_loses_its_quotes) {
  EXPECT_EQ(text({"-restoreFile", "\"/x y.dat\""}), "=/x y.dat");
}

TEST(options, open_brackets_are_text) {
  EXPECT_EQ(text({"-restoreFile", "(a"}), "=(a");
  EXPECT_EQ(text({"-restoreFile", "{a"}), "={a");
  EXPECT_EQ(text({"-restoreFile", "\"open"}), "=\"open");
  EXPECT_EQ(text({"-restoreFile", "<zz>"}), "=<zz>");
}

}  // namespace
