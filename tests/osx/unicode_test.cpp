#include "osx/unicode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "muro/core/exception.h"
#include "osx/unicode_step.h"

#ifdef KORVEL_HAVE_ICU
#include <unicode/unistr.h>
#endif

namespace {

using code_points = std::u32string;

struct runs {
  code_points text;
  std::vector<std::size_t> lengths;
};

void keep_code_points(void* context, const unsigned int* first, std::size_t count) {
  runs& kept = *static_cast<runs*>(context);
  kept.text.append(first, first + count);
  kept.lengths.push_back(count);
}

void keep_bytes(void* context, const unsigned char* bytes, std::size_t length) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(bytes, bytes + length);
}

const unsigned char* bytes_of(const std::string& utf8) {
  return reinterpret_cast<const unsigned char*>(utf8.data());
}

// From memory of exactly its size, so that a read past its end is seen under a sanitizer.
runs decode_in_runs(const std::string& utf8) {
  const std::vector<unsigned char> units(utf8.begin(), utf8.end());
  runs kept;
  xstd::llvm_convert_utf8_to_native_utf32(units.data(), units.size(), keep_code_points, &kept);
  return kept;
}

code_points decode(const std::string& utf8) {
  return decode_in_runs(utf8).text;
}

std::vector<std::string> encode_in_runs(const code_points& text) {
  const std::vector<unsigned int> units(text.begin(), text.end());
  std::vector<std::string> kept;
  xstd::llvm_convert_native_utf32_to_utf8(units.data(), units.size(), keep_bytes, &kept);
  return kept;
}

std::string encode(const code_points& text) {
  std::string joined;
  for (const std::string& run : encode_in_runs(text)) joined += run;
  return joined;
}

bool is_scalar(unsigned long value) {
  return value <= 0x10FFFF && !(value >= 0xD800 && value <= 0xDFFF);
}

// The slow oracle: it knows UTF-8 only as "what a scalar value is written as", by division.
std::size_t write_scalar(unsigned long value, unsigned char (&out)[4]) {
  if (value < 0x80) {
    out[0] = static_cast<unsigned char>(value);
    return 1;
  }
  const std::size_t length = value < 0x800 ? 2 : value < 0x10000 ? 3 : 4;
  for (std::size_t i = length - 1; i > 0; --i, value /= 64) {
    out[i] = static_cast<unsigned char>(128 + value % 64);
  }
  out[0] = static_cast<unsigned char>(value + (length == 2 ? 192 : length == 3 ? 224 : 240));
  return length;
}

// The length of the sequence at `at` that is exactly some scalar value as it is written; 0: none.
std::size_t sequence_at(const std::string& utf8, std::size_t at, unsigned long& value) {
  constexpr int kLeadBase[] = {0, 0, 192, 224, 240};
  for (std::size_t length = 1; length <= 4 && at + length <= utf8.size(); ++length) {
    long guess = static_cast<unsigned char>(utf8[at]) - kLeadBase[length];
    for (std::size_t i = 1; i < length; ++i) {
      guess = guess * 64 + static_cast<unsigned char>(utf8[at + i]) - 128;
    }
    if (guess < 0 || !is_scalar(static_cast<unsigned long>(guess))) continue;
    unsigned char written[4];
    if (write_scalar(static_cast<unsigned long>(guess), written) != length) continue;
    if (utf8.compare(at, length, reinterpret_cast<char*>(written), length) != 0) continue;
    value = static_cast<unsigned long>(guess);
    return length;
  }
  return 0;
}

void oracle_decode(const std::string& utf8, code_points& out) {
  out.clear();
  for (std::size_t at = 0; at < utf8.size();) {
    unsigned long value = 0;
    const std::size_t length = sequence_at(utf8, at, value);
    if (length != 0) out += static_cast<char32_t>(value);
    at += length != 0 ? length : 1;
  }
}

std::string hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%02X ", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

// One reused buffer for each side keeps the exhaustive comparison quick.
class comparison {
 public:
  ::testing::AssertionResult agree(const std::string& utf8) {
    seen_.text.clear();
    seen_.lengths.clear();
    xstd::llvm_convert_utf8_to_native_utf32(bytes_of(utf8), utf8.size(), keep_code_points, &seen_);
    oracle_decode(utf8, expected_);
    if (seen_.text == expected_) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << hex(utf8);
  }

 private:
  runs seen_;
  code_points expected_;
};

// Bytes with the broken and the well-formed about even.
std::string random_bytes(std::mt19937& random, std::size_t length) {
  static constexpr unsigned char kEdges[] = {
      0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1,
      0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xF7, 0xF8, 0xFC, 0xFE, 0xFF};
  std::string bytes;
  while (bytes.size() < length) {
    unsigned char written[4];
    if (random() % 2 == 0) {
      bytes += static_cast<char>(kEdges[random() % sizeof kEdges]);
    } else {
      bytes.append(reinterpret_cast<char*>(written), write_scalar(random() % 0x110000, written));
    }
  }
  return bytes;
}

code_points every_scalar_value() {
  code_points all;
  for (unsigned long value = 0; value <= 0x10FFFF; ++value) {
    if (is_scalar(value)) all += static_cast<char32_t>(value);
  }
  return all;
}

}  // namespace

TEST(unicode, nothing_gives_no_run) {
  EXPECT_TRUE(decode_in_runs("").lengths.empty());
  EXPECT_TRUE(encode_in_runs(U"").empty());
  xstd::llvm_convert_utf8_to_native_utf32(nullptr, 0, nullptr, nullptr);
  xstd::llvm_convert_native_utf32_to_utf8(nullptr, 0, nullptr, nullptr);
}

TEST(unicode, well_formed_sequences_of_each_length_are_read) {
  EXPECT_EQ(decode("A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), U"A\u00E9\u20AC\U0001F600");
}

TEST(unicode, bounds_of_each_length_are_read) {
  EXPECT_EQ(decode(std::string("\0\x7F", 2)), code_points(U"\0\x7F", 2));
  EXPECT_EQ(decode("\xC2\x80\xDF\xBF"), code_points({0x80, 0x7FF}));
  EXPECT_EQ(decode("\xE0\xA0\x80\xEF\xBF\xBF"), code_points({0x800, 0xFFFF}));
  EXPECT_EQ(decode("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"), code_points({0x10000, 0x10FFFF}));
}

TEST(unicode, an_illegal_byte_is_dropped_wherever_it_stands) {
  EXPECT_EQ(decode("ab\xFFyz"), U"abyz");
  EXPECT_EQ(decode("\xFF"
                   "a"),
            U"a");
  EXPECT_EQ(decode("a\xFF"), U"a");
  EXPECT_EQ(decode("a\x80z"), U"az");
}

TEST(unicode, a_broken_sequence_loses_only_its_first_byte) {
  EXPECT_EQ(decode("\xE2\x82z"), U"z");
  EXPECT_EQ(decode("\xE2\xC3\xA9"), U"\u00E9");
  EXPECT_EQ(decode("\xF0\x9F\xE2\x82\xAC"), U"\u20AC");
}

TEST(unicode, good_text_after_a_broken_byte_near_the_end_is_kept) {
  EXPECT_EQ(decode("\xE2z"), U"z");
  EXPECT_EQ(decode("\xF0zz"), U"zz");
  EXPECT_EQ(decode("\xFCz"), U"z");
}

TEST(unicode, a_truncated_sequence_at_the_end_is_dropped) {
  EXPECT_EQ(decode("a\xC3"), U"a");
  EXPECT_EQ(decode("a\xE2\x82"), U"a");
  EXPECT_EQ(decode("a\xF0\x9F\x98"), U"a");
}

TEST(unicode, overlong_forms_are_dropped) {
  EXPECT_EQ(decode("a\xC0\xAFz"), U"az");
  EXPECT_EQ(decode("a\xE0\x80\xAFz"), U"az");
  EXPECT_EQ(decode("a\xF0\x80\x80\xAFz"), U"az");
}

TEST(unicode, encoded_surrogates_are_dropped) {
  EXPECT_EQ(decode("a\xED\xA0\x80z"), U"az");
  EXPECT_EQ(decode("a\xED\xBF\xBFz"), U"az");
  EXPECT_EQ(decode("a\xED\xA0\xBD\xED\xB8\x80z"), U"az");
}

TEST(unicode, values_beyond_the_last_code_point_are_dropped) {
  EXPECT_EQ(decode("a\xF4\x90\x80\x80z"), U"az");
  EXPECT_EQ(decode("a\xF5\x80\x80\x80z"), U"az");
  EXPECT_EQ(decode("a\xF8\x88\x80\x80\x80z"), U"az");
}

TEST(unicode, code_points_come_in_blocks_of_256) {
  EXPECT_EQ(decode_in_runs(std::string(600, 'x')).lengths,
            (std::vector<std::size_t>{256, 256, 88}));
  EXPECT_EQ(decode_in_runs(std::string(256, 'x')).lengths, std::vector<std::size_t>{256});
}

TEST(unicode, a_dropped_byte_leaves_the_block_unfinished) {
  const std::string utf8 = std::string(100, 'x') + "\xFF" + std::string(156, 'x');
  EXPECT_EQ(decode_in_runs(utf8).lengths, std::vector<std::size_t>{256});
}

TEST(unicode, a_sequence_across_the_block_is_not_torn) {
  for (const std::string sequence : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xE2\x82z"}) {
    for (std::size_t before = 250; before < 260; ++before) {
      const std::string utf8 = std::string(before, 'x') + sequence + sequence + "z";
      code_points expected;
      oracle_decode(utf8, expected);
      EXPECT_EQ(decode(utf8), expected) << before;
    }
  }
}

TEST(unicode, inputs_of_one_and_two_bytes_are_read_as_the_oracle_reads_them) {
  comparison with_oracle;
  for (unsigned bits = 0; bits < 0x100; ++bits) {
    ASSERT_TRUE(with_oracle.agree(std::string(1, static_cast<char>(bits))));
  }
  for (unsigned bits = 0; bits < 0x10000; ++bits) {
    ASSERT_TRUE(with_oracle.agree({static_cast<char>(bits >> 8), static_cast<char>(bits)}));
  }
}

class unicode_three_bytes : public ::testing::TestWithParam<unsigned> {};

// All 2^24 of them, an eighth at a time so that they may run side by side.
TEST_P(unicode_three_bytes, are_read_as_the_oracle_reads_them) {
  constexpr unsigned kEighth = 0x1000000 / 8;
  comparison with_oracle;
  std::string utf8(3, '\0');
  for (unsigned bits = GetParam() * kEighth; bits < (GetParam() + 1) * kEighth; ++bits) {
    utf8[0] = static_cast<char>(bits >> 16);
    utf8[1] = static_cast<char>(bits >> 8);
    utf8[2] = static_cast<char>(bits);
    ASSERT_TRUE(with_oracle.agree(utf8));
  }
}

INSTANTIATE_TEST_SUITE_P(eighths, unicode_three_bytes, ::testing::Range(0u, 8u));

TEST(unicode, random_inputs_are_read_as_the_oracle_reads_them) {
  std::mt19937 random(20);
  comparison with_oracle;
  for (int i = 0; i < 50000; ++i) {
    ASSERT_TRUE(with_oracle.agree(random_bytes(random, random() % 12)));
  }
  for (int i = 0; i < 500; ++i) {
    ASSERT_TRUE(with_oracle.agree(random_bytes(random, random() % 2000)));
  }
}

TEST(unicode, a_break_anywhere_in_a_long_run_is_read_as_the_oracle_reads_it) {
  comparison with_oracle;
  for (const std::string unit : {"x", "\xC3\xA9", "\xE5\xA4\xA9", "\xF0\x9F\x98\x80"}) {
    std::string run;
    while (run.size() < 48) run += unit;
    for (std::size_t at = 0; at <= run.size(); ++at) {
      for (const std::string broken : {"", "z", "\xFF", "\x80", "\xED\xA0\x80", "\xF4\x90"}) {
        ASSERT_TRUE(with_oracle.agree(run.substr(0, at) + broken + run.substr(at)));
        ASSERT_TRUE(with_oracle.agree(run.substr(0, at) + broken));
      }
    }
  }
}

// The bytes at which the rules turn, four in a row, at each place of eight bytes that are looked at
// together: far enough from the end for what is read ahead.
TEST(unicode, every_four_edge_bytes_within_ascii_are_read_as_the_oracle_reads_them) {
  constexpr unsigned char kTurns[] = {0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC1,
                                      0xC2, 0xDF, 0xE0, 0xED, 0xEF, 0xF0, 0xF4, 0xF5, 0xFF};
  constexpr unsigned kCount = sizeof kTurns;
  comparison with_oracle;
  std::string utf8(28, 'x');
  for (unsigned bits = 0; bits < kCount * kCount * kCount * kCount; ++bits) {
    const std::size_t at = bits % 9;
    std::fill(utf8.begin(), utf8.end(), 'x');
    for (unsigned i = 0, left = bits; i < 4; ++i, left /= kCount) {
      utf8[at + i] = static_cast<char>(kTurns[left % kCount]);
    }
    ASSERT_TRUE(with_oracle.agree(utf8));
  }
}

TEST(unicode, blocks_hold_256_whatever_stands_at_their_ends) {
  for (std::size_t before = 240; before < 260; ++before) {
    for (const std::string unit : {"x", "\xC3\xA9", "\xE5\xA4\xA9", "\xF0\x9F\x98\x80"}) {
      std::string utf8(before, 'y');
      for (int i = 0; i < 300; ++i) utf8 += unit;
      const std::size_t rest = before + 300 - 512;
      const runs seen = decode_in_runs(utf8);
      ASSERT_EQ(seen.lengths, (std::vector<std::size_t>{256, 256, rest}));
      code_points expected;
      oracle_decode(utf8, expected);
      ASSERT_TRUE(seen.text == expected) << before;
    }
  }
}

TEST(unicode, ascii_and_a_run_at_the_end_of_a_block_are_kept) {
  for (const char32_t wide : {U'\u20ac', U'\U0001f600'}) {
    for (std::size_t before = 240; before <= 256; ++before) {
      for (std::size_t ascii = 0; ascii <= 9; ++ascii) {
        const code_points text =
            code_points(before, U'\u00e9') + code_points(ascii, U'a') + code_points(20, wide);
        EXPECT_EQ(decode(encode(text)), text) << before << " before, " << ascii << " of ASCII";
      }
    }
  }
}

// Broken text of every length up to some blocks, so that it begins and ends at each place of one.
TEST(unicode, broken_text_is_read_as_the_oracle_reads_it_wherever_it_ends) {
  std::mt19937 random(22);
  for (std::size_t length = 0; length < 700; ++length) {
    std::string utf8;
    while (utf8.size() < length) {
      utf8 += static_cast<char>(random() % 4 == 0 ? 0x80 + random() % 0x80 : 'a' + random() % 26);
    }
    code_points expected;
    oracle_decode(utf8, expected);
    const runs seen = decode_in_runs(utf8);
    ASSERT_TRUE(seen.text == expected) << hex(utf8);
    ASSERT_TRUE(std::all_of(seen.lengths.begin(), seen.lengths.end() - !seen.lengths.empty(),
                            [](std::size_t each) { return each == 256; }));
  }
}

TEST(unicode, broken_text_at_the_end_of_a_block_is_kept) {
  for (const std::string broken : {"\xFF", "\x80zzzzzzz", "\xED\xA0\x80z"}) {
    std::string rest = "\xFF" + std::string(63, 'z');
    while (rest.size() < 400) rest += broken;
    for (std::size_t before = 240; before <= 260; ++before) {
      for (std::size_t ascii = 0; ascii <= 9; ++ascii) {
        std::string utf8;
        for (std::size_t i = 0; i < before; ++i) utf8 += "\xC3\xA9";
        utf8 += "\xFF" + std::string(ascii, 'a') + rest;
        code_points expected;
        oracle_decode(utf8, expected);
        const runs seen = decode_in_runs(utf8);
        ASSERT_TRUE(seen.text == expected) << before << " before, " << ascii << " of ASCII";
        ASSERT_EQ(seen.lengths.front(), 256u);
      }
    }
  }
}

// The bytes at which the rules turn, four in a row, at each place of 64 that are looked at together.
TEST(unicode, every_four_edge_bytes_within_broken_text_are_read_as_the_oracle_reads_them) {
  constexpr unsigned char kTurns[] = {0x41, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC1, 0xC2,
                                      0xDF, 0xE0, 0xE1, 0xED, 0xEF, 0xF0, 0xF4, 0xF5, 0xFF};
  constexpr unsigned kCount = sizeof kTurns;
  comparison with_oracle;
  for (unsigned bits = 0; bits < kCount * kCount * kCount * kCount; ++bits) {
    std::string utf8 = "\xFF" + std::string(150, 'x');
    const std::size_t at = 1 + bits % 71;
    for (unsigned i = 0, left = bits; i < 4; ++i, left /= kCount) {
      utf8[at + i] = static_cast<char>(kTurns[left % kCount]);
    }
    ASSERT_TRUE(with_oracle.agree(utf8));
  }
}

TEST(unicode, a_run_that_ends_the_text_is_not_read_past) {
  for (const char32_t wide : {U'\u20ac', U'\U0001f600'}) {
    for (std::size_t count = 1; count <= 40; ++count) {
      const code_points text(count, wide);
      EXPECT_EQ(decode(encode(text)), text) << count;
    }
  }
}

TEST(unicode, every_scalar_value_is_written_as_the_oracle_writes_it) {
  const code_points all = every_scalar_value();
  std::string expected;
  for (const char32_t value : all) {
    unsigned char written[4];
    expected.append(reinterpret_cast<char*>(written), write_scalar(value, written));
  }
  EXPECT_TRUE(encode(all) == expected);
  EXPECT_TRUE(decode(expected) == all);
}

TEST(unicode, a_value_of_another_length_in_a_long_run_is_written_as_it_is_alone) {
  for (const char32_t unit : U"x\u00E9\u5929\U0001F600") {
    for (std::size_t at = 0; at < 40; ++at) {
      for (const char32_t other :
           {0x7Au, 0xE9u, 0x5929u, 0x1F600u, 0xD800u, 0x110000u, 0xFFFFFFFFu}) {
        code_points text(40, unit);
        text[at] = other;
        const std::string before = encode(text.substr(0, at)), after = encode(text.substr(at + 1));
        ASSERT_EQ(encode(text), before + encode(code_points(1, other)) + after);
      }
    }
  }
}

TEST(unicode, what_has_no_utf8_form_is_written_as_the_replacement_character) {
  EXPECT_EQ(encode({0x61, 0xD800, 0xDFFF, 0x7A}), "a\xEF\xBF\xBD\xEF\xBF\xBDz");
  EXPECT_EQ(encode({0x61, 0x110000, 0xFFFFFFFF, 0x7A}), "a\xEF\xBF\xBD\xEF\xBF\xBDz");
}

TEST(unicode, written_runs_end_between_sequences) {
  for (std::size_t before = 1018; before < 1030; ++before) {
    code_points text(before, U'x');
    text += U"\U0001F600\u20AC\u00E9z";
    const std::vector<std::string> written = encode_in_runs(text);
    ASSERT_EQ(written.size(), 2u);
    EXPECT_LE(written[0].size(), 1024u);
    EXPECT_EQ(decode(written[0]) + decode(written[1]), text) << before;
  }
}

TEST(unicode, written_blocks_are_at_most_1024_bytes_whatever_stands_at_their_ends) {
  for (const char32_t wide : {0xE9u, 0x20ACu, 0x1F600u, 0xD800u, 0x110000u}) {
    for (std::size_t before = 990; before <= 1024; ++before) {
      for (std::size_t ascii = 0; ascii <= 9; ++ascii) {
        const code_points text =
            code_points(before, U'x') + wide + code_points(ascii, U'a') + code_points(20, wide);
        const std::string one = encode(code_points(1, wide));
        std::string expected = std::string(before, 'x') + one + std::string(ascii, 'a');
        for (int i = 0; i < 20; ++i) expected += one;
        const std::vector<std::string> written = encode_in_runs(text);
        ASSERT_EQ(written.size(), 2u);
        ASSERT_LE(written[0].size(), 1024u);
        ASSERT_GT(written[0].size(), 1024u - one.size());
        ASSERT_EQ(written[0] + written[1], expected) << before << " before, " << ascii << " after";
        ASSERT_NE(written[1][0] & 0xC0, 0x80) << "a sequence is split";
      }
    }
  }
}

TEST(unicode, well_formed_text_is_converted_as_icu_converts_it) {
#ifdef KORVEL_HAVE_ICU
  std::mt19937 random(21);
  for (int i = 0; i < 2000; ++i) {
    code_points text;
    for (std::size_t n = random() % 600; n > 0; --n) {
      const auto value = static_cast<char32_t>((random() % 0x110000) >> (random() % 20));
      if (is_scalar(value)) text += value;
    }
    std::string utf8;
    icu::UnicodeString::fromUTF32(reinterpret_cast<const UChar32*>(text.data()),
                                  static_cast<int32_t>(text.size()))
        .toUTF8String(utf8);
    ASSERT_EQ(encode(text), utf8);
    ASSERT_TRUE(decode(utf8) == text);
  }
#else
  GTEST_SKIP() << "built without ICU";
#endif
}

namespace {

using xstd::step_result;

runs drive_once(step_result (*step)(const unsigned char*&, const unsigned char*, unsigned int*&,
                                    unsigned int*)) {
  runs kept;
  xstd::drive_utf8(bytes_of("ab"), 2, keep_code_points, &kept, step);
  return kept;
}

void expect_convert_error(xstd::utf8_step step) {
  try {
    drive_once(step);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const muro::exception& e) {
    EXPECT_EQ(e.description(), ":Error in 'convert'");
  }
}

}  // namespace

TEST(unicode, an_unknown_result_of_the_converter_throws) {
  expect_convert_error([](const unsigned char*&, const unsigned char*, unsigned int*&,
                          unsigned int*) { return static_cast<step_result>(4); });
  expect_convert_error([](const unsigned char*&, const unsigned char*, unsigned int*&,
                          unsigned int*) { return static_cast<step_result>(-1); });
}

TEST(unicode, a_converter_that_stands_still_throws) {
  expect_convert_error([](const unsigned char*&, const unsigned char*, unsigned int*&,
                          unsigned int*) { return step_result::target_exhausted; });
  expect_convert_error(
      [](const unsigned char*& source, const unsigned char* end, unsigned int*&, unsigned int*) {
        source = end;
        return step_result::source_illegal;
      });
}

TEST(unicode, an_unknown_result_of_the_way_back_throws) {
  const unsigned int text[] = {'a'};
  std::vector<std::string> kept;
  const auto broken = [](const unsigned int*&, const unsigned int*, unsigned char*&,
                         unsigned char*) { return static_cast<step_result>(7); };
  EXPECT_THROW(xstd::drive_utf32(text, 1, keep_bytes, &kept, broken), muro::exception);
}

TEST(unicode, what_the_callback_throws_reaches_the_caller) {
  const auto refuse = [](void*, const unsigned int*, std::size_t) { throw 1; };
  EXPECT_THROW(xstd::llvm_convert_utf8_to_native_utf32(bytes_of("a"), 1, refuse, nullptr), int);
}
