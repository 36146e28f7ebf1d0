#include "osx/xml_writer.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

std::string text_of(const std::string& utf8) {
  std::string out;
  muro::escape_xml_text(out, utf8.data(), utf8.size());
  return out;
}

std::string attribute_of(const std::string& utf8) {
  std::string out;
  muro::escape_xml_attribute(out, utf8.data(), utf8.size());
  return out;
}

// The UTF-8 form of any 16- or 21-bit value, surrogates too.
std::string utf8_of(unsigned value) {
  const auto byte = [](unsigned bits) { return static_cast<char>(bits); };
  if (value < 0x80) return {byte(value)};
  if (value < 0x800) return {byte(0xC0 | value >> 6), byte(0x80 | (value & 63))};
  if (value < 0x10000) {
    return {byte(0xE0 | value >> 12), byte(0x80 | (value >> 6 & 63)), byte(0x80 | (value & 63))};
  }
  return {byte(0xF0 | value >> 18), byte(0x80 | (value >> 12 & 63)), byte(0x80 | (value >> 6 & 63)),
          byte(0x80 | (value & 63))};
}

// Whether a code point survives in text; one at a time, beside neighbours that always do.
bool is_kept(unsigned value) {
  const std::string out = text_of("a" + utf8_of(value) + "z");
  EXPECT_TRUE(out == "az" || out == "a" + utf8_of(value) + "z") << std::hex << value;
  return out != "az";
}

void expect_kept(unsigned first, unsigned last, bool kept) {
  for (unsigned value = first; value <= last; ++value) {
    if (value == '&' || value == '<' || value == '>') continue;
    ASSERT_EQ(is_kept(value), kept) << "U+" << std::hex << value;
  }
}

class xml_writer : public ::testing::Test {
 protected:
  std::string out;
  muro::xml_write_string writer{&out};
};

}  // namespace

TEST(xml_escape, text_has_three_entities) {
  EXPECT_EQ(text_of("a<b&c>\"d'"), "a&lt;b&amp;c&gt;\"d'");
}

TEST(xml_escape, an_attribute_has_the_double_quote_too) {
  EXPECT_EQ(attribute_of("a<b&c>\"d'"), "a&lt;b&amp;c&gt;&quot;d'");
}

TEST(xml_escape, an_entity_is_escaped_again) {
  EXPECT_EQ(text_of("&amp;"), "&amp;amp;");
}

TEST(xml_escape, both_modes_append_and_do_not_replace) {
  std::string out = "<";
  muro::escape_xml_text(out, "<", 1);
  muro::escape_xml_attribute(out, "\"", 1);
  EXPECT_EQ(out, "<&lt;&quot;");
}

TEST(xml_escape, a_character_in_a_long_run_is_written_as_it_is_alone) {
  for (const std::string& run : {std::string(40, 'x'), std::string(40, '&')}) {
    for (unsigned value = 0; value < 0x100; ++value) {
      for (const std::string& c : {utf8_of(value), std::string(1, static_cast<char>(value))}) {
        for (std::size_t at = 0; at < run.size(); ++at) {
          const std::string first = run.substr(0, at), last = run.substr(at);
          ASSERT_EQ(text_of(first + c + last), text_of(first) + text_of(c) + text_of(last));
          ASSERT_EQ(attribute_of(first + c + last),
                    attribute_of(first) + attribute_of(c) + attribute_of(last));
        }
      }
    }
  }
}

TEST(xml_escape, a_character_in_a_short_text_is_written_as_it_is_alone) {
  for (std::size_t length = 0; length < 16; ++length) {
    const std::string text(length, 'x');
    ASSERT_EQ(text_of(text), text);
    for (unsigned value = 0; value < 0x100; ++value) {
      const std::string c(1, static_cast<char>(value));
      for (std::size_t at = 0; at <= length; ++at) {
        const std::string first = text.substr(0, at), last = text.substr(at);
        ASSERT_EQ(text_of(first + c + last), first + text_of(c) + last);
        ASSERT_EQ(attribute_of(first + c + last), first + attribute_of(c) + last);
      }
    }
  }
}

// In memory of just its size, where the address sanitizer sees what is read beside it.
TEST(xml_escape, a_short_text_is_not_read_beyond_its_end) {
  for (std::size_t length = 0; length < 40; ++length) {
    const std::vector<char> exactly(length, 'x');
    std::string out;
    muro::escape_xml_text(out, exactly.data(), length);
    ASSERT_EQ(out, std::string(length, 'x'));
  }
}

TEST(xml_escape, long_texts_one_after_another_are_appended) {
  const std::string text(5000, 'x');
  std::string out = "<", wanted = "<";
  for (int i = 0; i < 10; ++i) {
    muro::escape_xml_text(out, text.data(), text.size());
    ASSERT_EQ(out, wanted += text);
  }
}

TEST(xml_escape, text_longer_than_a_block_is_written_whole) {
  for (std::size_t before = 880; before < 1060; ++before) {
    const std::string entities(40, '&'), plain(before, 'x');
    ASSERT_EQ(text_of(plain + "\xE5\xA4\xA9<" + plain), plain + "\xE5\xA4\xA9&lt;" + plain);
    ASSERT_EQ(attribute_of(plain + entities).size(), before + 5 * entities.size());
  }
}

TEST(xml_escape, nothing_appends_nothing) {
  std::string out = "x";
  muro::escape_xml_text(out, nullptr, 0);
  muro::escape_xml_attribute(out, nullptr, 0);
  EXPECT_EQ(out, "x");
}

TEST(xml_escape, white_space_is_kept_as_it_is_in_both_modes) {
  EXPECT_EQ(text_of("\t\n\r \xC2\x85"), "\t\n\r \xC2\x85");
  EXPECT_EQ(attribute_of("\t\n\r \xC2\x85"), "\t\n\r \xC2\x85");
}

TEST(xml_escape, other_c0_controls_are_dropped) {
  expect_kept(0x00, 0x08, false);
  expect_kept(0x09, 0x0A, true);
  expect_kept(0x0B, 0x0C, false);
  expect_kept(0x0D, 0x0D, true);
  expect_kept(0x0E, 0x1F, false);
}

TEST(xml_escape, printable_ascii_is_kept) {
  expect_kept(0x20, 0x7E, true);
}

TEST(xml_escape, del_and_the_c1_controls_are_dropped_but_for_u_0085) {
  expect_kept(0x7F, 0x84, false);
  expect_kept(0x85, 0x85, true);
  expect_kept(0x86, 0x9F, false);
}

TEST(xml_escape, the_basic_plane_is_kept_up_to_the_surrogates) {
  expect_kept(0xA0, 0xD7FF, true);
}

TEST(xml_escape, surrogates_are_dropped) {
  expect_kept(0xD800, 0xDFFF, false);
}

TEST(xml_escape, private_use_and_compatibility_forms_are_kept) {
  expect_kept(0xE000, 0xFDCF, true);
}

TEST(xml_escape, sixteen_noncharacters_are_dropped_and_the_next_sixteen_kept) {
  expect_kept(0xFDD0, 0xFDDF, false);
  expect_kept(0xFDE0, 0xFFFD, true);
}

TEST(xml_escape, the_last_two_of_every_plane_are_dropped) {
  expect_kept(0xFFFE, 0xFFFF, false);
  for (unsigned plane = 1; plane <= 16; ++plane) {
    expect_kept(plane << 16, (plane << 16) + 0xFF, true);
    expect_kept((plane << 16) + 0xFF00, (plane << 16) + 0xFFFD, true);
    expect_kept((plane << 16) + 0xFFFE, (plane << 16) + 0xFFFF, false);
  }
}

TEST(xml_escape, values_beyond_the_last_code_point_are_dropped) {
  expect_kept(0x110000, 0x110010, false);
}

TEST(xml_escape, ill_formed_bytes_are_dropped_and_the_rest_kept) {
  EXPECT_EQ(text_of("ab\xFFyz"), "abyz");
  EXPECT_EQ(text_of("ab\xE2\x82"), "ab");
  EXPECT_EQ(text_of("\x80&\xC3"), "&amp;");
}

TEST(xml_escape, entities_and_drops_anywhere_in_a_block_leave_the_rest_in_order) {
  for (std::size_t before = 253; before < 260; ++before) {
    const std::string run(before, 'x');
    EXPECT_EQ(text_of(run + "<\x01\xE2\x82\xAC&\x7F>z"), run + "&lt;\xE2\x82\xAC&amp;&gt;z");
  }
}

TEST(xml_escape, a_long_text_is_escaped_as_its_characters_are_one_by_one) {
  std::mt19937 random(3);
  std::string whole;
  std::string by_one;
  for (int i = 0; i < 5000; ++i) {
    const std::string one = utf8_of(random() % 0x400);
    whole += one;
    by_one += attribute_of(one);
  }
  EXPECT_EQ(attribute_of(whole), by_one);
}

TEST_F(xml_writer, each_event_appends_its_text) {
  writer.xml_sax_element_begin("a");
  EXPECT_EQ(out, "<a");
  writer.xml_sax_element_attribute("b", "1");
  EXPECT_EQ(out, "<a b=\"1\"");
  writer.xml_sax_element_children();
  EXPECT_EQ(out, "<a b=\"1\">");
  writer.xml_sax_text("t");
  EXPECT_EQ(out, "<a b=\"1\">t");
  writer.xml_sax_comment("c");
  EXPECT_EQ(out, "<a b=\"1\">t<!--c-->");
  writer.xml_sax_element_end("a");
  EXPECT_EQ(out, "<a b=\"1\">t<!--c--></a>");
}

TEST_F(xml_writer, an_empty_element_ends_at_once) {
  writer.xml_sax_element_begin("true");
  writer.xml_sax_element_end_empty();
  EXPECT_EQ(out, "<true/>");
}

TEST_F(xml_writer, names_and_comments_are_not_escaped) {
  writer.xml_sax_element_begin("<&");
  writer.xml_sax_element_attribute("\"&", "");
  writer.xml_sax_element_end("&>");
  writer.xml_sax_comment("<\x01\xFF&");
  EXPECT_EQ(out, "<<& \"&=\"\"</&>><!--<\x01\xFF&-->");
}

TEST_F(xml_writer, text_and_attributes_are_escaped_each_in_its_mode) {
  writer.xml_sax_text("\"&");
  writer.xml_sax_element_attribute("n", "\"&");
  EXPECT_EQ(out, "\"&amp; n=\"&quot;&amp;\"");
}

TEST_F(xml_writer, the_order_of_events_is_not_checked) {
  writer.xml_sax_element_end("b");
  writer.xml_sax_element_children();
  writer.xml_sax_element_begin("a");
  EXPECT_EQ(out, "</b>><a");
}

TEST_F(xml_writer, what_the_string_holds_already_stays_in_front) {
  out = "head ";
  writer.xml_sax_text("x");
  EXPECT_EQ(out, "head x");
}

TEST_F(xml_writer, preparing_turns_a_line_end_pair_into_one_blank) {
  std::string text = "a\r\nb\rc\nd\te\n\rf\r\r\ng";
  writer.xml_sax_prepare(text);
  EXPECT_EQ(text, "a b c d e  f  g");
  EXPECT_EQ(out, "");
}

TEST_F(xml_writer, preparing_is_a_static_operation_too) {
  std::string text = "\t\r\n";
  muro::xml_sax_events::prepare_attribute(text);
  EXPECT_EQ(text, "  ");
}
