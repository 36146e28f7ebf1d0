#include "muro/core/log_text.h"

#include <gtest/gtest.h>

#include "muro/core/exception.h"
#include "muro/core/hooks.h"

namespace {

namespace log_text = muro::log_text;

std::string escaped(std::string text) {
  log_text::escape(text);
  return text;
}

TEST(escape, writes_control_bytes_as_two_hex_digits) {
  EXPECT_EQ(escaped("a\nb"), "a`0ab");
  EXPECT_EQ(escaped("\r\t\x1f"), "`0d`09`1f");
  EXPECT_EQ(escaped(std::string("\0x", 2)), "`00x");
}

TEST(escape, writes_the_grave_accent_so_too) {
  EXPECT_EQ(escaped("`0a"), "`600a");
}

TEST(escape, leaves_all_other_bytes) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    if (byte < 0x20 || byte == '`') {
      EXPECT_EQ(escaped(text).size(), 3U) << byte;
    } else {
      EXPECT_EQ(escaped(text), text) << byte;
    }
  }
}

TEST(escape, finds_every_byte_at_every_place) {
  for (int byte = 0; byte < 256; ++byte) {
    const bool plain = byte >= 0x20 && byte != '`';
    for (const std::size_t size : {15U, 16U, 17U, 40U}) {
      for (std::size_t at = 0; at < size; ++at) {
        std::string text(size, '\xff');
        text[at] = static_cast<char>(byte);
        EXPECT_EQ(escaped(text).size(), plain ? size : size + 2) << byte << " at " << at;
      }
    }
  }
}

TEST(escape, replaces_neighbours_and_leaves_what_is_around_them) {
  EXPECT_EQ(escaped("eight by`\n`tes and some"), "eight by`60`0a`60tes and some");
  EXPECT_EQ(escaped(std::string(9, '\n')), "`0a`0a`0a`0a`0a`0a`0a`0a`0a");
}

TEST(escape, leaves_the_empty_text) {
  EXPECT_EQ(escaped(""), "");
}

TEST(raw_message, follows_prefix_and_separator) {
  EXPECT_EQ(log_text::raw_message("12:00 text", 5), "text");
  EXPECT_EQ(log_text::raw_message("|text", 0), "text");
}

TEST(raw_message, is_all_when_nothing_follows) {
  EXPECT_EQ(log_text::raw_message("12:00 ", 5), "12:00 ");
  EXPECT_EQ(log_text::raw_message("12:00", 5), "12:00");
  EXPECT_EQ(log_text::raw_message("12:00", 6), "12:00");
  EXPECT_EQ(log_text::raw_message("12:00", static_cast<std::size_t>(-1)), "12:00");
  EXPECT_EQ(log_text::raw_message("", 0), "");
}

TEST(without_line_end, removes_every_cr_and_lf_at_the_end) {
  EXPECT_EQ(log_text::without_line_end("a\r\n\n\r"), "a");
  EXPECT_EQ(log_text::without_line_end("\na\nb"), "\na\nb");
  EXPECT_EQ(log_text::without_line_end("\r\n"), "");
  EXPECT_EQ(log_text::without_line_end(""), "");
}

TEST(timestamp, is_the_utc_date_and_time) {
  EXPECT_EQ(log_text::timestamp(1709208000), "2024-02-29T12:00:00Z");
  EXPECT_EQ(log_text::timestamp(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(log_text::timestamp(-1), "1969-12-31T23:59:59Z");
  EXPECT_EQ(log_text::timestamp(253402300800), "10000-01-01T00:00:00Z");
}

TEST(timestamp, without_a_date_is_n) {
  EXPECT_EQ(log_text::timestamp(0x7fffffffffffffff), "N");
}

/// A clock that the test moves.
class clock_test : public testing::Test {
 protected:
  clock_test() {
    now_ms = 1709208000000;
    broken = false;
    muro::x_absolute_time = [] {
      if (broken) throw muro::exception("no time");
      return now_ms;
    };
  }
  ~clock_test() override { muro::x_absolute_time = nullptr; }

  static inline long long now_ms;
  static inline bool broken;
  log_text::clock clock;
};

TEST_F(clock_test, follows_the_time) {
  EXPECT_EQ(clock.now(), "2024-02-29T12:00:00Z");
  now_ms += 999;
  EXPECT_EQ(clock.now(), "2024-02-29T12:00:00Z");
  now_ms += 1;
  EXPECT_EQ(clock.now(), "2024-02-29T12:00:01Z");
}

TEST_F(clock_test, is_n_while_the_time_cannot_be_read) {
  const std::string before = clock.now();
  broken = true;
  EXPECT_EQ(clock.now(), "N");
  broken = false;
  EXPECT_EQ(clock.now(), before);
}

}  // namespace
