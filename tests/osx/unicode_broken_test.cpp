#include "osx/unicode_broken.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using xstd::kBrokenPlaces;
using xstd::kBrokenReads;

namespace {

struct outcome {
  std::size_t passed;
  std::string written;
};

// From memory of exactly the text's size, into room of exactly what may be written.
outcome pass(const std::string& text, std::size_t room) {
  const std::vector<unsigned char> source(text.begin(), text.end());
  std::vector<unsigned int> target(room - 1 + kBrokenPlaces);
  const xstd::utf8_place stopped = xstd::pass_broken(
      {source.data(), target.data()}, source.data() + source.size(), target.data() + room);
  return {static_cast<std::size_t>(stopped.source - source.data()),
          std::string(target.data(), stopped.target)};
}

// Every choice of ASCII among eight bytes; the others are none that a sequence begins with.
std::string broken_text(std::size_t size) {
  static constexpr unsigned char kBroken[] = {0x80, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1};
  std::string text = "\xFF";
  for (unsigned int choice = 0; text.size() < size; ++choice) {
    for (unsigned int i = 0; i < 8; ++i) {
      text += static_cast<char>((choice >> i & 1) != 0 ? 'a' + i : kBroken[(choice + i) % 6]);
    }
  }
  return text.substr(0, size);
}

std::string ascii_of(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(),
                            [](char c) { return (static_cast<unsigned char>(c) & 0x80) != 0; }),
             text.end());
  return text;
}

}  // namespace

TEST(unicode_broken, ascii_is_kept_and_every_other_byte_dropped) {
  const std::string text = broken_text(0x100 * 8 + kBrokenReads);
  const outcome seen = pass(text, text.size());
  EXPECT_GT(seen.passed, text.size() - kBrokenReads);
  EXPECT_LE(seen.passed, text.size());
  EXPECT_EQ(seen.written, ascii_of(text.substr(0, seen.passed)));
}

TEST(unicode_broken, fewest_bytes_are_passed_in_one_go) {
  const std::string text = broken_text(kBrokenReads);
  const outcome seen = pass(text, 1);
  EXPECT_EQ(seen.passed, kBrokenPlaces);
  EXPECT_EQ(seen.written, ascii_of(text.substr(0, kBrokenPlaces)));
}

TEST(unicode_broken, nothing_goes_far_beyond_the_room) {
  for (const std::string& text : {std::string(300, 'x'), broken_text(300)}) {
    for (std::size_t room = 1; room < 200; ++room) {
      const outcome seen = pass(text, room);
      EXPECT_TRUE(seen.written.size() >= room || seen.passed > text.size() - kBrokenReads);
      EXPECT_LT(seen.written.size(), room + kBrokenPlaces);
      EXPECT_EQ(seen.written, ascii_of(text.substr(0, seen.passed)));
    }
  }
}

TEST(unicode_broken, a_sequence_stops_it_wherever_it_stands) {
  for (const std::string sequence :
       {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xE1\x80\x80", "\xEC\xBF\xBF", "\xED\x80\x80",
        "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    for (std::size_t at = 1; at < 2 * kBrokenPlaces; ++at) {
      const std::string before = broken_text(at - 1) + "z";
      const outcome seen = pass(before + sequence + std::string(kBrokenReads, 'x'), 1000);
      ASSERT_EQ(seen.passed, at);
      ASSERT_EQ(seen.written, ascii_of(before));
    }
  }
}

TEST(unicode_broken, what_begins_no_sequence_does_not_stop_it) {
  for (const std::string broken : {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2z", "\xC2\xC2z",
                                   "\xDF\x7F", "\xDF\xC0", "\xE1z", "\xE1\x80z", "\xE1\x80\xC0",
                                   "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0z", "\xF0\x90z"}) {
    for (std::size_t at = 1; at < kBrokenPlaces; ++at) {
      const std::string text = "\xFF" + std::string(at - 1, 'y') + broken + std::string(200, 'x');
      const outcome seen = pass(text, 1000);
      ASSERT_GT(seen.passed, text.size() - kBrokenReads) << at;
      ASSERT_EQ(seen.written, ascii_of(text.substr(0, seen.passed)));
    }
  }
}

TEST(unicode_broken, the_first_byte_is_known_to_begin_nothing) {
  for (const std::string broken : {"\xE0\x80\x80", "\xF5\x80\x80\x80", "\xF4\x90\x80\x80"}) {
    const std::string text = broken + std::string(kBrokenReads, 'x');
    EXPECT_GE(pass(text, 1).passed, kBrokenPlaces);
  }
}
