#include "platform/linux/argument_value.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

struct string_case {
  const char* given;
  nil_string expected;
};

void PrintTo(const string_case& one, std::ostream* out) {
  *out << testing::PrintToString(one.given);
}

class argument_value : public testing::TestWithParam<string_case> {};

TEST_P(argument_value, is_read_as_a_property_list_or_verbatim) {
  EXPECT_EQ(argument_string(GetParam().given), GetParam().expected);
}

const nil_string nil = std::nullopt;

INSTANTIATE_TEST_SUITE_P(
    words, argument_value,
    testing::Values(string_case{"", ""}, string_case{"  ", "  "}, string_case{" /x.dat", "/x.dat"},
                    string_case{"/x.dat\n", "/x.dat"}, string_case{" /x y.dat", " /x y.dat"},
                    string_case{"/a\\b.dat", "/a\\b.dat"}, string_case{"a;b", "a;b"},
                    string_case{"a=b", "a=b"}, string_case{"//x.dat", "//x.dat"},
                    string_case{"/* c */ /x.dat", "/x.dat"}, string_case{"/*x.dat", "/*x.dat"},
                    string_case{"/\xC3\xA4.dat", "/\xC3\xA4.dat"}));

INSTANTIATE_TEST_SUITE_P(quotes, argument_value,
                         testing::Values(string_case{"\"\"", ""}, string_case{"'/x y'", "/x y"},
                                         string_case{R"("a\"b\\c\n")", "a\"b\\c\n"},
                                         string_case{R"("\101\U00e4")", "A\xC3\xA4"},
                                         string_case{R"("\377")", R"("\377")"},
                                         string_case{R"("\0")", R"("\0")"},
                                         string_case{R"("\Ud800")", R"("\Ud800")"},
                                         string_case{"\"a\\", "\"a\\"},
                                         string_case{"\"a\" b", "\"a\" b"}));

INSTANTIATE_TEST_SUITE_P(
    containers, argument_value,
    testing::Values(string_case{"()", nil}, string_case{"(a, b)", nil}, string_case{"(a,)", nil},
                    string_case{"((a), {b = (c);})", nil}, string_case{"{a = b; c = d;}", nil},
                    string_case{"<>", nil}, string_case{"<0102 ff>", nil},
                    string_case{"<012>", "<012>"}, string_case{"(a b)", "(a b)"},
                    string_case{"(,)", "(,)"}, string_case{"{a}", "{a}"},
                    string_case{"{a=b}", "{a=b}"}, string_case{"(a) b", "(a) b"}));

INSTANTIATE_TEST_SUITE_P(
    xml, argument_value,
    testing::Values(string_case{"<?xml version=\"1.0\"?><plist><array/></plist>", nil},
                    string_case{"<plist><dict/></plist>", nil},
                    string_case{"<plist><string>/x y</string></plist>", "/x y"},
                    string_case{"<plist><true/></plist>", "1"},
                    string_case{"<plist><integer>7</integer></plist>", "7"},
                    string_case{"<plist><string>", "<plist><string>"}));

TEST(argument_value, nesting_has_a_bound) {
  const std::string shallow = std::string(60, '(') + std::string(60, ')');
  const std::string deep = std::string(100000, '(') + std::string(100000, ')');
  EXPECT_EQ(argument_string(shallow), nil);
  EXPECT_EQ(argument_string(deep), deep);
}

TEST(text_is_true, goes_by_the_first_telling_character) {
  for (const char* yes :
       {"1",     "2",    "01",   "+1",   "1.5", "1abc", " 1", "YES", "yes",  "Yes",
        "YESno", "true", "TRUE", "True", "Y",   "y",    "T",  "t",   " YES", "-1"})
    EXPECT_TRUE(text_is_true(yes)) << yes;
  for (const char* no :
       {"0", "00", "0.5", "0x1", "NO", "no", "n", "false", "on", "", " ", "+", "a1"})
    EXPECT_FALSE(text_is_true(no)) << no;
}

}  // namespace
}  // namespace platform
