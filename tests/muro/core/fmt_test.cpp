#include "muro/core/fmt.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <iomanip>
#include <locale>
#include <random>
#include <vector>

namespace {

using muro::destringify;
using muro::fmt;
using muro::stringify;

template <class... Args>
std::string fill(const std::string& tmpl, const Args&... args) {
  fmt message(tmpl);
  (message._add_arg(args, 0, 0), ...);
  const std::string text = message.str();
  EXPECT_EQ(muro::fill_template(tmpl, args...), text) << "the two roads";
  return text;
}

template <class T>
std::string padded(const T& value, char fill_character, unsigned char width) {
  fmt message("%1%");
  message._add_arg(value, fill_character, width);
  return message.str();
}

TEST(fmt, placeholder_takes_its_argument) {
  EXPECT_EQ(fill("Failed to create directory: %1%", "/x"), "Failed to create directory: /x");
}

TEST(fmt, arguments_are_numbered_in_the_order_they_are_added) {
  EXPECT_EQ(fill("%2% before %1%", "a", "b"), "b before a");
}

TEST(fmt, placeholder_may_occur_several_times) {
  EXPECT_EQ(fill("%1%-%1%-%1%", std::string("x")), "x-x-x");
}

TEST(fmt, two_percents_are_one) {
  EXPECT_EQ(fill("100%% done"), "100% done");
  EXPECT_EQ(fill("%%%%"), "%%");
  EXPECT_EQ(fill("%%1%%", "x"), "%1%");
}

TEST(fmt, percent_before_another_character_stays_text) {
  EXPECT_EQ(fill("50% off"), "50% off");
  EXPECT_EQ(fill("%a%1%", "x"), "%ax");
}

TEST(fmt, percent_before_digit_stays_text) {
  EXPECT_EQ(fill("a%1"), "a%1");
  EXPECT_EQ(fill("%12x"), "%12x");
  EXPECT_EQ(fill("%12x%1%", "!"), "%12x!");
}

TEST(fmt, percent_at_the_end_stays_text) {
  EXPECT_EQ(fill("%"), "%");
  EXPECT_EQ(fill("rate in %"), "rate in %");
}

TEST(fmt, percent_that_follows_digits_always_closes_the_placeholder) {
  EXPECT_EQ(fill("%1%%", "x"), "x%");
  EXPECT_EQ(fill("%1%%2%", "x", "y"), "xy");
}

TEST(fmt, leading_zeros_belong_to_the_number) {
  EXPECT_EQ(fill("%01%%002%", "x", "y"), "xy");
}

TEST(fmt, placeholder_without_argument_is_empty) {
  EXPECT_EQ(fill("%1%"), "");
  EXPECT_EQ(fill("a%1%b%2%c", "x"), "axbc");
}

TEST(fmt, arguments_beyond_the_highest_placeholder_are_ignored) {
  EXPECT_EQ(fill("%1%", "x", "y", "z"), "x");
  EXPECT_EQ(fill("plain", "x"), "plain");
}

TEST(fmt, number_zero_is_never_filled) {
  EXPECT_EQ(fill("<%0%>", "x", "y"), "<>");
}

TEST(fmt, number_beyond_an_int_is_never_filled) {
  EXPECT_EQ(fill("<%2147483648%>", "x"), "<>");
  EXPECT_EQ(fill("<%4294967297%>", "x"), "<>");
  EXPECT_EQ(fill("<%99999999999999999999999%>", "x"), "<>");
}

TEST(fmt, only_the_ten_digits_make_a_number) {
  EXPECT_EQ(fill("%\xb2%", "x"), "%\xb2%");
  EXPECT_EQ(fill("%-1%", "x"), "%-1%");
}

TEST(fmt, empty_template_gives_the_empty_text) {
  EXPECT_EQ(fill("", "x"), "");
}

TEST(fmt, value_is_not_parsed_again) {
  EXPECT_EQ(fill("%1%%2%", "%2%", "%1%"), "%2%%1%");
}

TEST(fmt, text_may_hold_any_byte) {
  const std::string bytes("\0\x01\xff%", 4);
  EXPECT_EQ(fill(bytes + "x%1%", bytes), bytes + "x" + bytes);
}

TEST(fmt, literal_of_any_length_is_copied_whole) {
  for (std::size_t length = 0; length < 50; ++length) {
    const std::string text(length, 'x');
    for (std::size_t at = 0; at <= length; ++at) {
      const std::string first = text.substr(0, at), last = text.substr(at);
      ASSERT_EQ(fill(first + "%1%" + last, "y"), first + "y" + last);
      ASSERT_EQ(fill(first + "%%" + last), first + "%" + last);
      ASSERT_EQ(fill(first + "%" + last), first + "%" + last);
    }
  }
}

// In memory of just its size, where the address sanitizer sees what is read beside it.
TEST(fmt, template_is_not_read_beyond_its_end) {
  for (std::size_t length = 0; length < 50; ++length) {
    const std::vector<char> exactly(length, 'x');
    ASSERT_EQ(muro::fill_template({exactly.data(), length}, "y"), std::string(length, 'x'));
  }
}

TEST(fmt, values_that_occur_often_find_room_beside_the_rest_of_the_template) {
  const std::string value(300, 'v'), literal(40, 'x');
  std::string tmpl, wanted;
  for (int i = 0; i < 20; ++i) {
    tmpl += "%1%" + literal;
    wanted += value + literal;
    ASSERT_EQ(fill(tmpl, value), wanted);
  }
}

TEST(fmt, copy_is_independent) {
  fmt original("%1% %2%");
  original.add("a");
  fmt copy = original;
  copy.add("b");
  original.add("c");
  EXPECT_EQ(original.str(), "a c");
  EXPECT_EQ(copy.str(), "a b");
}

TEST(fmt, reading_does_not_end_the_filling) {
  fmt message("%1%%2%");
  message.add("a");
  EXPECT_EQ(message.str(), "a");
  message.add("b");
  EXPECT_EQ(message.str(), "ab");
}

TEST(fmt, texts_are_added_as_they_are) {
  const char array[] = "array";
  const char* const pointer = "pointer";
  EXPECT_EQ(fill("%1% %2% %3%", array, pointer, std::string("string")), "array pointer string");
}

TEST(fmt, array_ends_at_its_zero_or_its_last_byte) {
  const char early[8] = "ab\0cd";
  const char unterminated[2] = {'a', 'b'};
  EXPECT_EQ(fill("%1%,%2%", early, unterminated), "ab,ab");
}

TEST(fmt, null_text_is_named) {
  const char* const nothing = nullptr;
  char* const also_nothing = nullptr;
  EXPECT_EQ(fill("%1% %2%", nothing, also_nothing), "(null) (null)");
}

TEST(fmt, integers_are_decimal) {
  EXPECT_EQ(fill("%1% %2% %3%", 0, INT_MIN, INT_MAX), "0 -2147483648 2147483647");
  EXPECT_EQ(fill("%1% %2%", 0U, UINT_MAX), "0 4294967295");
  EXPECT_EQ(fill("%1% %2%", LLONG_MIN, ULLONG_MAX), "-9223372036854775808 18446744073709551615");
}

TEST(fmt, bool_is_a_digit) {
  EXPECT_EQ(fill("%1%%2%", true, false), "10");
}

TEST(fmt, char_is_itself) {
  EXPECT_EQ(fill("%1%", '.'), ".");
}

TEST(fmt, raw_endian_is_written_without_a_byte_swap) {
  using raw = muro::raw_endian<unsigned long long, true>;
  raw value;
  const unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  std::memcpy(value.bytes, bytes, sizeof bytes);
  std::uint64_t expected;
  std::memcpy(&expected, bytes, sizeof bytes);
  EXPECT_EQ(fill("%1%", value), std::to_string(expected));
  EXPECT_EQ(fill("%1% %2% %3%", raw(0), raw(1), raw(ULLONG_MAX)), "0 1 18446744073709551615");
  EXPECT_EQ(fill("%1%", muro::raw_endian<int, false>(-1)), "4294967295");
}

TEST(fmt, other_kinds_are_written_as_a_stream_does) {
  EXPECT_EQ(fill("%1% %2%", 1.5, std::setw(3)), "1.5 ");
}

TEST(fmt, pieces_of_every_length_arrive_whole) {
  for (std::size_t size = 0; size < 40; ++size) {
    const std::string literal(size, 'l');
    std::string value;
    for (std::size_t i = 0; i < size; ++i) value += static_cast<char>('a' + i % 26);
    EXPECT_EQ(fill(literal + "%1%" + literal, value), literal + value + literal);
  }
}

TEST(fmt, value_that_occurs_often_takes_the_room_it_needs) {
  std::string tmpl, expected;
  for (int i = 0; i < 100; ++i) {
    tmpl += "%1%,";
    expected += "a value that is long,";
  }
  EXPECT_EQ(fill(tmpl, "a value that is long"), expected);
}

TEST(fmt, width_pads_on_the_left_with_blanks) {
  EXPECT_EQ(padded(42, 0, 5), "   42");
  EXPECT_EQ(padded("ab", 0, 3), " ab");
  EXPECT_EQ(padded(12345, 0, 3), "12345");
}

TEST(fmt, width_pads_with_the_fill_character) {
  EXPECT_EQ(padded(42, '0', 5), "00042");
  EXPECT_EQ(padded(true, '*', 2), "*1");
  EXPECT_EQ(padded(std::string("x"), '.', 255), std::string(254, '.') + "x");
  EXPECT_EQ(padded(muro::raw_endian<unsigned long long, true>(7), '0', 3), "007");
}

TEST(fmt, fill_without_width_changes_nothing) {
  EXPECT_EQ(padded(42, '0', 0), "42");
}

TEST(fmt, null_text_is_padded_as_its_name) {
  EXPECT_EQ(padded(static_cast<const char*>(nullptr), '-', 8), "--(null)");
}

/// A locale that groups digits and names truth.
struct grouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
  char do_thousands_sep() const override { return '\''; }
};

struct locale_guard {
  explicit locale_guard(const std::locale& l) : saved(std::locale::global(l)) {}
  ~locale_guard() { std::locale::global(saved); }
  std::locale saved;
};

TEST(fmt, numbers_do_not_depend_on_the_locale) {
  const locale_guard guard(std::locale(std::locale::classic(), new grouping));
  EXPECT_EQ(fill("%1% %2%", 1234567, 1234567.0F), "1234567 1.23457e+06");
  EXPECT_EQ(padded(1234567, '0', 9), "001234567");
  EXPECT_EQ(stringify(1234567, 1024.0), "12345671024");
  EXPECT_EQ(destringify<int>("1234567"), 1234567);
}

TEST(stringify, joins_without_separators) {
  EXPECT_EQ(stringify(std::string("name"), '.', 3), "name.3");
  const char array[] = "array";
  const char* const pointer = "pointer";
  EXPECT_EQ(stringify(pointer, array), "pointerarray");
  EXPECT_EQ(stringify(array, std::string("s")), "arrays");
  EXPECT_EQ(stringify(array, 4000000000U), "array4000000000");
}

TEST(stringify, takes_a_single_value) {
  EXPECT_EQ(stringify(-5), "-5");
  EXPECT_EQ(stringify(5U), "5");
  EXPECT_EQ(stringify('c'), "c");
  EXPECT_EQ(stringify(true), "1");
}

TEST(stringify, of_nothing_is_empty) {
  EXPECT_EQ(stringify(), "");
}

TEST(stringify, names_a_null_text_and_goes_on) {
  EXPECT_EQ(stringify("a", static_cast<const char*>(nullptr), 1), "a(null)1");
  EXPECT_EQ(stringify("a", static_cast<const char*>(nullptr), 1.5), "a(null)1.5");
}

TEST(stringify, uses_one_stream_for_all) {
  EXPECT_EQ(stringify(std::hex, 255, '-', 16), "ff-10");
}

TEST(destringify, reads_a_number_from_the_front) {
  EXPECT_EQ(destringify<int>("  42"), 42);
  EXPECT_EQ(destringify<int>("12abc"), 12);
  EXPECT_EQ(destringify<int>("-7"), -7);
  EXPECT_EQ(destringify<int>("+7"), 7);
  EXPECT_EQ(destringify<int>("007 8"), 7);
  EXPECT_EQ(destringify<int>(" \t\n\v\f\r42"), 42);
}

TEST(destringify, gives_zero_for_what_is_no_number) {
  EXPECT_EQ(destringify<int>(""), 0);
  EXPECT_EQ(destringify<int>("abc"), 0);
  EXPECT_EQ(destringify<int>("-"), 0);
  EXPECT_EQ(destringify<int>("  "), 0);
  EXPECT_EQ(destringify<int>("+"), 0);
  EXPECT_EQ(destringify<int>("+-7"), 0);
  EXPECT_EQ(destringify<int>("- 7"), 0);
}

TEST(destringify, stops_at_the_limits_of_the_type) {
  EXPECT_EQ(destringify<int>("99999999999"), INT_MAX);
  EXPECT_EQ(destringify<int>("-99999999999"), INT_MIN);
}

/// The slow and obvious reading of a template: at each "%" look ahead for "%" or for digits that
/// end in "%".
std::string obvious_fill(const std::string& tmpl, const std::vector<std::string>& values) {
  std::string result;
  for (std::size_t i = 0; i < tmpl.size(); ++i) {
    const std::size_t end = tmpl.find_first_not_of("0123456789", i + 1);
    if (tmpl[i] != '%' || end == std::string::npos) {
      result += tmpl[i];
    } else if (end == i + 1) {
      result += tmpl[i];
      if (tmpl[end] != '%') result += tmpl[end];
      i = end;
    } else if (tmpl[end] == '%') {
      const std::size_t number = std::stoul(tmpl.substr(i + 1, end - i - 1));
      if (number >= 1 && number <= values.size()) result += values[number - 1];
      i = end;
    } else {
      result += tmpl.substr(i, end - i + 1);
      i = end;
    }
  }
  return result;
}

TEST(fmt, agrees_with_an_obvious_reading_of_random_templates) {
  std::mt19937 random(20240229);
  for (int round = 0; round < 50000; ++round) {
    std::string tmpl(random() % 12, ' ');
    for (char& c : tmpl) c = "%%%%0123ab"[random() % 10];
    fmt message(tmpl);
    for (const char* value : {"<one>", "", "<%2%>"}) message.add(value);
    ASSERT_EQ(message.str(), obvious_fill(tmpl, {"<one>", "", "<%2%>"})) << tmpl;
  }
}

}  // namespace
