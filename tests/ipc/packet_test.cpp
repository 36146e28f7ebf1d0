#include "ipc/packet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "muro/core/exception.h"

namespace {

using number = muro_packet<unsigned long>;
using text = muro_packet<std::string>;
using namespace std::string_literals;

unsigned long pop_number(std::string& packet) {
  unsigned long value = 77;
  number::pop(packet, value);
  return value;
}

std::string pop_text(std::string& packet) {
  std::string value = "untouched";
  text::pop(packet, value);
  return value;
}

template <class Field>
std::string failure_of(std::string packet) {
  try {
    Field{}(packet);
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "no exception";
}
struct as_number {
  void operator()(std::string& packet) const { pop_number(packet); }
};
struct as_text {
  void operator()(std::string& packet) const { pop_text(packet); }
};

TEST(packet, texts_are_exact) {
  EXPECT_STREQ(muro::packet_parse_e, "error parsing packet");
  EXPECT_STREQ(muro::packet_number_too_big_e, "number too big to be stored in native variable");
}

TEST(packet, single_zero_byte_is_the_number_zero) {
  std::string packet("\0", 1);
  EXPECT_EQ(pop_number(packet), 0u);
  EXPECT_EQ(packet, "");
}

TEST(packet, number_is_read_least_significant_byte_first) {
  std::string packet = "\x34\x12\x02";
  EXPECT_EQ(pop_number(packet), 0x1234u);
  EXPECT_EQ(packet, "");
}

TEST(packet, number_of_eight_bytes_fills_the_variable) {
  std::string packet = "left\x08\x07\x06\x05\x04\x03\x02\xf1\x08";
  EXPECT_EQ(pop_number(packet), 0xf102030405060708u);
  EXPECT_EQ(packet, "left");
}

TEST(packet, number_padded_with_zero_bytes_is_accepted) {
  std::string packet = "\x05\0\0\0\0\0\0\0\x08"s;
  EXPECT_EQ(pop_number(packet), 5u);
}

TEST(packet, every_count_up_to_eight_is_accepted) {
  for (char count = 0; count <= 8; ++count) {
    std::string packet = "front" + std::string(static_cast<std::size_t>(count), '\xff') + count;
    const unsigned long all_ones = count == 0 ? 0 : ~0ul >> (64 - 8 * count);
    EXPECT_EQ(pop_number(packet), all_ones) << int{count};
    EXPECT_EQ(packet, "front");
  }
}

TEST(packet, empty_packet_is_no_number) {
  EXPECT_EQ(failure_of<as_number>(""), muro::packet_parse_e);
}

TEST(packet, number_shorter_than_its_count_is_refused) {
  EXPECT_EQ(failure_of<as_number>("\x01\x02"), muro::packet_parse_e);
}

TEST(packet, count_of_nine_is_too_big_even_with_enough_bytes) {
  EXPECT_EQ(failure_of<as_number>("123456789\x09"), muro::packet_number_too_big_e);
  EXPECT_EQ(failure_of<as_number>(std::string(300, 'x') + "\xff"), muro::packet_number_too_big_e);
}

TEST(packet, count_of_nine_without_enough_bytes_is_a_parse_error) {
  EXPECT_EQ(failure_of<as_number>("12345678\x09"), muro::packet_parse_e);
}

TEST(packet, refused_number_leaves_packet_and_value) {
  std::string packet = "\x01\x02";
  unsigned long value = 5;
  EXPECT_THROW(number::pop(packet, value), muro::exception);
  EXPECT_EQ(packet, "\x01\x02");
  EXPECT_EQ(value, 5u);
}

TEST(packet, string_is_its_bytes_and_their_count) {
  std::string packet =
      "before"
      "ab\x02\x01";
  EXPECT_EQ(pop_text(packet), "ab");
  EXPECT_EQ(packet, "before");
}

TEST(packet, count_stands_behind_the_length_never_before_it) {
  EXPECT_EQ(failure_of<as_text>("ab\x01\x02"), muro::packet_parse_e);
}

TEST(packet, string_may_hold_zero_bytes) {
  std::string packet = "a\0b\x03\x01"s;
  EXPECT_EQ(pop_text(packet), "a\0b"s);
}

TEST(packet, empty_string_is_a_zero_count) {
  std::string packet = "x\0"s;
  EXPECT_EQ(pop_text(packet), "");
  EXPECT_EQ(packet, "x");
}

TEST(packet, string_failures_of_the_length_pass_on) {
  EXPECT_EQ(failure_of<as_text>(""), muro::packet_parse_e);
  EXPECT_EQ(failure_of<as_text>("123456789\x09"), muro::packet_number_too_big_e);
}

TEST(packet, string_longer_than_what_is_left_is_refused_after_its_length_went) {
  std::string packet = "ab\x03\x01";
  std::string value = "kept";
  EXPECT_THROW(text::pop(packet, value), muro::exception);
  EXPECT_EQ(failure_of<as_text>("ab\x03\x01"), muro::packet_parse_e);
  EXPECT_EQ(packet, "ab");
  EXPECT_EQ(value, "kept");
}

TEST(packet, string_length_near_the_top_of_the_range_is_refused) {
  EXPECT_EQ(failure_of<as_text>("ab" + std::string(8, '\xff') + "\x08"), muro::packet_parse_e);
}

TEST(packet, numbers_are_written_in_the_fewest_bytes) {
  const std::vector<std::pair<unsigned long, std::string>> rows = {
      {0, "\0"s},
      {1, "\x01\x01"},
      {0xff, "\xff\x01"},
      {0x100, "\0\x01\x02"s},
      {0x1234, "\x34\x12\x02"},
      {~0ul, std::string(8, '\xff') + "\x08"}};
  for (const auto& [value, bytes] : rows) {
    std::string packet;
    number::push(packet, value);
    EXPECT_EQ(packet, bytes) << value;
    EXPECT_EQ(pop_number(packet), value);
  }
}

TEST(packet, string_ab_is_written_as_four_bytes) {
  std::string packet = "x";
  text::push(packet, "ab");
  EXPECT_EQ(packet, "xab\x02\x01");
}

TEST(packet, field_appended_last_is_read_first) {
  std::string packet;
  text::push(packet, "/tmp/a.dat");
  number::push(packet, 42);
  text::push(packet, std::string(70000, 'c'));
  EXPECT_EQ(pop_text(packet), std::string(70000, 'c'));
  EXPECT_EQ(pop_number(packet), 42u);
  EXPECT_EQ(pop_text(packet), "/tmp/a.dat");
  EXPECT_EQ(packet, "");
}

}  // namespace
