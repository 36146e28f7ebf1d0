#include "osx/unicode_runs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace {

// One lane at a time gets a value at the edge of a length; the others are well inside.
constexpr unsigned int kEdges[] = {0,       0x7F,     0x80,       0x7FF,      0x800,
                                   0xD7FF,  0xD800,   0xDFFF,     0xE000,     0xFFFF,
                                   0x10000, 0x10FFFF, 0x110000,   0x1FFFFF,   0x7FFF,
                                   0x8000,  0x20000,  0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};

bool is_surrogate(unsigned int value) {
  return value >= 0xD800 && value <= 0xDFFF;
}
bool takes_three(unsigned int value) {
  return value >= 0x800 && value <= 0xFFFF && !is_surrogate(value);
}
bool takes_four(unsigned int value) {
  return value >= 0x10000 && value <= 0x10FFFF;
}

// The bytes of a value in a length that need not be its own.
std::string in_three(unsigned int value) {
  return {static_cast<char>(0xE0 | value >> 12), static_cast<char>(0x80 | (value >> 6 & 0x3F)),
          static_cast<char>(0x80 | (value & 0x3F))};
}
std::string in_four(unsigned int value) {
  return {static_cast<char>(0xF0 | value >> 18), static_cast<char>(0x80 | (value >> 12 & 0x3F)),
          static_cast<char>(0x80 | (value >> 6 & 0x3F)), static_cast<char>(0x80 | (value & 0x3F))};
}

const unsigned char* bytes_of(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

using lanes_of_four = std::array<unsigned int, 4>;
using lanes_of_eight = std::array<unsigned int, 8>;

lanes_of_four with_lane(unsigned int others, std::size_t lane, unsigned int value) {
  lanes_of_four all = {others, others + 1, others + 0x41, others + 0x1234};
  all[lane] = value;
  return all;
}

using decode_four = bool (*)(const unsigned char*, unsigned int*);

void expect_decoded(decode_four decode, const std::string& text, bool wanted,
                    const lanes_of_four& values) {
  lanes_of_four got = {};
  ASSERT_EQ(decode(bytes_of(text), got.data()), wanted) << std::hex << values[0];
  if (wanted) {
    EXPECT_EQ(got, values);
  }
}

// Every bit that marks a byte's place in its sequence, turned over.
void expect_marks_checked(decode_four decode, const std::string& text, std::size_t length) {
  for (std::size_t at = 0; at < 4 * length; ++at) {
    for (const unsigned int bit : {0x80u, 0x40u}) {
      std::string broken = text;
      broken[at] = static_cast<char>(static_cast<unsigned char>(broken[at]) ^ bit);
      lanes_of_four got;
      EXPECT_FALSE(decode(bytes_of(broken), got.data())) << at << " " << bit;
    }
  }
}

}  // namespace

TEST(unicode_runs, ascii_is_widened_up_to_the_first_other_byte) {
  const std::string text = std::string("\0\x7F", 2) + "ABCDEF";
  lanes_of_eight wide = {};
  EXPECT_EQ(xstd::widen_ascii(bytes_of(text), wide.data()), 8u);
  EXPECT_TRUE(std::equal(wide.begin(), wide.end(), text.begin()));
  for (std::size_t first = 0; first < text.size(); ++first) {
    for (std::size_t second = first; second < text.size(); ++second) {
      std::string other = text;
      other[first] = '\x80', other[second] = '\xFF';
      wide = {};
      ASSERT_EQ(xstd::widen_ascii(bytes_of(other), wide.data()), first);
      EXPECT_TRUE(std::equal(text.begin(), text.begin() + static_cast<long>(first), wide.begin()));
    }
  }
}

TEST(unicode_runs, ascii_is_narrowed_up_to_the_first_other_value) {
  for (std::size_t place = 0; place < 8; ++place) {
    for (const unsigned int value : kEdges) {
      lanes_of_eight text;
      text.fill('x');
      text[place] = value;
      std::string narrow(8, ' ');
      auto* const to = reinterpret_cast<unsigned char*>(narrow.data());
      ASSERT_EQ(xstd::narrow_ascii(text.data(), to), value < 0x80 ? 8 : place) << value;
      EXPECT_EQ(narrow.substr(0, place), std::string(place, 'x'));
      if (value < 0x80) {
        EXPECT_EQ(narrow[place], static_cast<char>(value));
      }
    }
  }
}

TEST(unicode_runs, four_of_three_bytes_are_read_if_all_are_well_formed) {
  for (std::size_t lane = 0; lane < 4; ++lane) {
    for (const unsigned int value : kEdges) {
      if (value > 0xFFFF) continue;
      const lanes_of_four values = with_lane(0x5929, lane, value);
      std::string text;
      for (const unsigned int each : values) text += in_three(each);
      expect_decoded(xstd::decode_four_of_three_bytes, text + "\xFF\xFF\xFF\xFF",
                     takes_three(value), values);
    }
  }
}

TEST(unicode_runs, four_of_four_bytes_are_read_if_all_are_well_formed) {
  for (std::size_t lane = 0; lane < 4; ++lane) {
    for (const unsigned int value : kEdges) {
      if (value > 0x1FFFFF) continue;
      const lanes_of_four values = with_lane(0x1F600, lane, value);
      std::string text;
      for (const unsigned int each : values) text += in_four(each);
      expect_decoded(xstd::decode_four_of_four_bytes, text, takes_four(value), values);
    }
  }
}

TEST(unicode_runs, bytes_that_do_not_mark_their_place_are_not_read) {
  std::string threes, fours;
  for (int i = 0; i < 4; ++i) threes += in_three(0x5929), fours += in_four(0x1F680);
  expect_marks_checked(xstd::decode_four_of_three_bytes, threes + "zzzz", 3);
  expect_marks_checked(xstd::decode_four_of_four_bytes, fours, 4);
  lanes_of_four got;
  EXPECT_FALSE(
      xstd::decode_four_of_three_bytes(bytes_of("\xF0" + threes.substr(1) + "zzzz"), got.data()));
  EXPECT_FALSE(xstd::decode_four_of_four_bytes(bytes_of("\xF8" + fours.substr(1)), got.data()));
}

TEST(unicode_runs, four_are_written_in_three_bytes_if_each_takes_three) {
  for (std::size_t lane = 0; lane < 4; ++lane) {
    for (const unsigned int value : kEdges) {
      const lanes_of_four values = with_lane(0x5929, lane, value);
      std::string text(14, ' '), wanted;
      auto* const to = reinterpret_cast<unsigned char*>(text.data());
      ASSERT_EQ(xstd::encode_four_in_three_bytes(values.data(), to), takes_three(value)) << value;
      for (const unsigned int each : values) wanted += in_three(each);
      if (takes_three(value)) {
        EXPECT_EQ(text.substr(0, 12), wanted);
      }
    }
  }
}

TEST(unicode_runs, four_are_written_in_four_bytes_if_each_takes_four) {
  for (std::size_t lane = 0; lane < 4; ++lane) {
    for (const unsigned int value : kEdges) {
      const lanes_of_four values = with_lane(0x1F600, lane, value);
      std::string text(16, ' '), wanted;
      auto* const to = reinterpret_cast<unsigned char*>(text.data());
      ASSERT_EQ(xstd::encode_four_in_four_bytes(values.data(), to), takes_four(value)) << value;
      for (const unsigned int each : values) wanted += in_four(each);
      if (takes_four(value)) {
        EXPECT_EQ(text, wanted);
      }
    }
  }
}

TEST(unicode_runs, xml_is_plain_but_for_controls_markup_and_what_is_no_ascii) {
  for (std::size_t place = 0; place < xstd::kRun; ++place) {
    for (unsigned int byte = 0; byte < 0x100; ++byte) {
      std::string text(xstd::kRun, 'x'), copy(xstd::kRun, ' ');
      text[place] = static_cast<char>(byte);
      const bool plain = byte >= 0x20 && byte < 0x7F && std::strchr("&<>", text[place]) == nullptr;
      ASSERT_EQ(xstd::copy_plain_xml<false>(bytes_of(text), copy.data()), plain) << byte;
      ASSERT_EQ(xstd::copy_plain_xml<true>(bytes_of(text), copy.data()), plain && byte != '"');
      EXPECT_EQ(copy, text);
    }
  }
}
