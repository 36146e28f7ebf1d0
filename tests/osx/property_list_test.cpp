#include "osx/property_list.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "tests/osx/run_tool.h"

namespace {

using muro::plist_elem;
using strings = std::vector<std::string>;

constexpr char kHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n";

// Every kind of element, and every character that is not written as it is.
std::string sample_document() {
  return muro::get_plist({
      plist_elem("Label", "com.example.job"),
      plist_elem("Quoted <key> & \"more\"", "a<b&c>\"d'"),
      plist_elem("Wide", "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
      plist_elem("Dropped", "a\x01\x7F\xFFz"),
      plist_elem("Empty", ""),
      plist_elem("Yes", true),
      plist_elem("No", false),
      plist_elem("Items", strings{"one", "", "<&>"}),
      plist_elem("None", strings{}),
  });
}

// What a reader of the sample must find, as Python writes it.
constexpr char kSampleAsPython[] =
    "{'Label': 'com.example.job', 'Quoted <key> & \"more\"': 'a<b&c>\"d\\'', "
    "'Wide': '\\xe9 \\u20ac \\U0001f600', 'Dropped': 'az', 'Empty': '', 'Yes': True, "
    "'No': False, 'Items': ['one', '', '<&>'], 'None': []}\n";

// The part of the format's document type that the writer uses, in our own words.
constexpr char kDocumentType[] =
    "<!ELEMENT plist (dict)>"
    "<!ATTLIST plist version CDATA '1.0'>"
    "<!ELEMENT dict (key, (string | true | false | array))*>"
    "<!ELEMENT array (string)*>"
    "<!ELEMENT key (#PCDATA)>"
    "<!ELEMENT string (#PCDATA)>"
    "<!ELEMENT true EMPTY>"
    "<!ELEMENT false EMPTY>";

}  // namespace

TEST(property_list, a_string_is_a_key_line_and_a_string_element) {
  EXPECT_EQ(plist_elem("Label", std::string("job")).text(),
            "<key>Label</key>\n<string>job</string>");
}

TEST(property_list, a_literal_is_a_string_and_no_bool) {
  EXPECT_EQ(plist_elem("Label", "job").text(), "<key>Label</key>\n<string>job</string>");
}

TEST(property_list, a_null_text_is_an_empty_string) {
  const char* const none = nullptr;
  EXPECT_EQ(plist_elem("Label", none).text(), "<key>Label</key>\n<string></string>");
}

TEST(property_list, a_bool_is_an_empty_element) {
  EXPECT_EQ(plist_elem("RunAtLoad", true).text(), "<key>RunAtLoad</key>\n<true/>");
  EXPECT_EQ(plist_elem("OnDemand", false).text(), "<key>OnDemand</key>\n<false/>");
}

TEST(property_list, an_array_has_one_indented_line_for_each_item) {
  EXPECT_EQ(plist_elem("Args", strings{"a", "b"}).text(),
            "<key>Args</key>\n<array>\n\t<string>a</string>\n\t<string>b</string>\n</array>");
}

TEST(property_list, an_empty_array_keeps_its_two_lines) {
  EXPECT_EQ(plist_elem("Args", strings{}).text(), "<key>Args</key>\n<array>\n</array>");
}

TEST(property_list, a_list_of_c_strings_is_an_array_up_to_its_null) {
  const char* values[] = {"a", "<b", nullptr, "c"};
  EXPECT_EQ(plist_elem("Args", values).text(), plist_elem("Args", strings{"a", "<b"}).text());
}

TEST(property_list, a_null_at_once_is_an_empty_array) {
  const char* values[] = {nullptr};
  EXPECT_EQ(plist_elem("Args", values).text(), "<key>Args</key>\n<array>\n</array>");
}

TEST(property_list, keys_strings_and_items_are_escaped_as_text) {
  EXPECT_EQ(plist_elem("<&>\"'", "a<b&c>\"d'").text(),
            "<key>&lt;&amp;&gt;\"'</key>\n<string>a&lt;b&amp;c&gt;\"d'</string>");
  EXPECT_EQ(plist_elem("<", true).text(), "<key>&lt;</key>\n<true/>");
  EXPECT_EQ(plist_elem("k", strings{"<"}).text(),
            "<key>k</key>\n<array>\n\t<string>&lt;</string>\n</array>");
}

TEST(property_list, a_long_array_is_written_whole) {
  strings items;
  std::string wanted = "<key>k</key>\n<array>\n";
  for (std::size_t length = 0; length < 200; ++length) {
    items.emplace_back(length, 'x');
    wanted += "\t<string>" + items.back() + "</string>\n";
  }
  EXPECT_EQ(plist_elem("k", items).text(), wanted + "</array>");
}

TEST(property_list, controls_and_broken_bytes_are_dropped_from_values) {
  EXPECT_EQ(plist_elem("k",
                       "a\x01"
                       "b\x7F"
                       "c\xFF"
                       "d\t\n\xC2\x85z\xE2")
                .text(),
            "<key>k</key>\n<string>abcd\t\n\xC2\x85z</string>");
}

TEST(property_list, further_text_is_appended_in_an_element_whose_name_is_not_escaped) {
  plist_elem element("k", true);
  element.add_text("a&b", "c&d");
  EXPECT_EQ(element.text(), "<key>k</key>\n<true/><a&b>c&amp;d</a&b>");
}

TEST(property_list, an_element_is_a_plain_value) {
  EXPECT_TRUE(std::is_copy_constructible_v<plist_elem> && std::is_copy_assignable_v<plist_elem>);
  EXPECT_TRUE(std::is_nothrow_move_constructible_v<plist_elem>);
}

TEST(property_list, the_head_has_171_bytes) {
  EXPECT_EQ(sizeof kHead - 1, 171u);
  EXPECT_EQ(muro::get_plist({}).substr(0, 171), kHead);
}

TEST(property_list, no_elements_give_the_head_and_the_end) {
  EXPECT_EQ(muro::get_plist({}), std::string(kHead) + "</dict>\n</plist>");
}

TEST(property_list, elements_stand_in_their_order_each_ended_by_a_line_end) {
  EXPECT_EQ(muro::get_plist({plist_elem("b", "1"), plist_elem("a", true)}),
            std::string(kHead) +
                "<key>b</key>\n<string>1</string>\n<key>a</key>\n<true/>\n</dict>\n</plist>");
}

TEST(property_list, pythons_reader_finds_what_was_written) {
  const test::tool_result read = test::run_tool(
      "/usr/bin/python3 -c 'import plistlib, sys; "
      "print(ascii(plistlib.load(open(sys.argv[1], \"rb\"))))' @",
      sample_document());
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.output, kSampleAsPython);
}

TEST(property_list, plistutil_finds_what_was_written) {
  const test::tool_result read = test::run_tool(
      "plistutil -i @ -f bin -o @.bin && /usr/bin/python3 -c 'import plistlib, sys; "
      "print(ascii(plistlib.load(open(sys.argv[1], \"rb\"))))' @.bin",
      sample_document());
  EXPECT_EQ(read.status, 0) << read.output;
  EXPECT_EQ(read.output, kSampleAsPython);
}

TEST(property_list, xmllint_finds_the_document_well_formed) {
  const test::tool_result read = test::run_tool("xmllint --nonet --noout @", sample_document());
  EXPECT_EQ(read.status, 0) << read.output;
  EXPECT_EQ(read.output, "");
}

TEST(property_list, xmllint_would_see_a_malformed_document) {
  std::string document = sample_document();
  document.replace(document.find("&amp;"), 5, "&");
  EXPECT_NE(test::run_tool("xmllint --nonet --noout @", document).status, 0);
}

TEST(property_list, xmllint_finds_the_document_valid) {
  const test::temp_dir folder;
  test::write_file(folder / "plist.dtd", kDocumentType);
  const std::string command = "xmllint --nonet --noout --dtdvalid " + (folder / "plist.dtd") + " @";
  const test::tool_result read = test::run_tool(command, sample_document());
  EXPECT_EQ(read.status, 0) << read.output;
  plist_elem twice("k", true);
  twice.add_text("string", "x");
  EXPECT_NE(test::run_tool(command, muro::get_plist({twice})).status, 0);
}
