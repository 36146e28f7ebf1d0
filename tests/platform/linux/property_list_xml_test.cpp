#include "platform/linux/property_list_xml.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

std::string in_plist(const std::string& body) {
  return "<plist>" + body + "</plist>";
}

nil_string string_in(const std::string& body) {
  const auto root = read_property_list_xml(in_plist(body));
  return root ? root->scalar_text() : std::nullopt;
}

bool reads(const std::string& xml) {
  return read_property_list_xml(xml).has_value();
}

TEST(property_list_xml, reads_a_whole_document) {
  const auto root = read_property_list_xml(
      "\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8' standalone='yes' ?>\n<!-- a -->"
      "<!DOCTYPE plist PUBLIC \"id\" 'http://x/y.dtd'>\n<?target data?>"
      "<plist version=\"1.0\"><dict>\n<key>a</key><string>b</string>"
      "<!-- c --><key>n</key><array><integer>-5</integer><real>1.5e3</real><true/><false />"
      "<date>2001-01-01T00:00:00Z</date><data>AQI=</data></array></dict></plist>\n<!-- d -->\n");
  ASSERT_TRUE(root);
  EXPECT_EQ(root->find("a")->text, "b");
  ASSERT_EQ(root->find("n")->items.size(), 6U);
  EXPECT_EQ(root->find("n")->items[0].text, "-5");
  EXPECT_EQ(root->find("n")->items[3].text, "0");
  EXPECT_EQ(root->find("missing"), nullptr);
}

TEST(property_list_xml, last_item_of_a_repeated_key_counts) {
  const auto root = read_property_list_xml(
      in_plist("<dict><key>a</key><string>1</string><key>a</key><string>2</string></dict>"));
  ASSERT_TRUE(root);
  EXPECT_EQ(root->find("a")->text, "2");
}

TEST(property_list_xml, keeps_blanks_in_strings_and_none_around_numbers) {
  EXPECT_EQ(string_in("<string> a\n</string>"), " a\n");
  EXPECT_EQ(string_in("<integer>\n 7 </integer>"), "7");
}

TEST(property_list_xml, reads_reals_with_or_without_point_and_exponent) {
  for (const char* real : {"0", "-1.5", "+.5", "5.", "1e3", "1.5E-3", "2e+07"})
    EXPECT_EQ(string_in("<real>" + std::string(real) + "</real>"), real);
}

TEST(property_list_xml, refuses_reals_that_are_no_numbers) {
  for (const char* bad : {"", ".", "+", "e3", "1e", "1e+", "1.2.3", "1+2", "--1", "1e2e3", "1e2.5"})
    EXPECT_FALSE(reads(in_plist("<real>" + std::string(bad) + "</real>"))) << bad;
}

TEST(property_list_xml, resolves_entities) {
  EXPECT_EQ(string_in("<string>&lt;&gt;&amp;&apos;&quot;</string>"), "<>&'\"");
  EXPECT_EQ(string_in("<string>&#65;&#x42;&#xe4;&#x20AC;&#x1F600;</string>"),
            "AB\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
}

TEST(property_list_xml, refuses_bad_entities) {
  for (const char* bad : {"&", "&;", "&nbsp;", "&#;", "&#x;", "&#0;", "&#x1;", "&#12", "&#1a;",
                          "&#xD800;", "&#x110000;", "&#99999999999999999999;", "&#xFFFE;"})
    EXPECT_FALSE(reads(in_plist("<string>" + std::string(bad) + "</string>"))) << bad;
}

TEST(property_list_xml, takes_cdata_and_comments_inside_text) {
  EXPECT_EQ(string_in("<string>a<![CDATA[<&]]>b<!-- no -->c</string>"), "a<&bc");
}

TEST(property_list_xml, refuses_malformed_documents) {
  for (const char* bad : {"",
                          " ",
                          "<dict/>",
                          "<plist>",
                          "<plist></plist>",
                          "<plist><dict>",
                          "<plist><dict/><dict/></plist>",
                          "<plist><dict></array></plist>",
                          "<plist><string>x</strin></plist>",
                          "<plist><string>x",
                          "<plist><other/></plist>",
                          "<plist><dict><string>x</string></dict></plist>",
                          "<plist><dict><key>a</key></dict></plist>",
                          "<plist><dict>text</dict></plist>",
                          "<plist><string a='b'>x</string></plist>",
                          "<plist><dict/></plist>more",
                          "<plist><!-- a -- b --><dict/></plist>",
                          "<plist><!-- open <dict/></plist>",
                          "<plist><true>x</true></plist>",
                          "<plist><integer>x</integer></plist>",
                          "<plist><integer/></plist>",
                          "<plist><integer>0x</integer></plist>",
                          "<plist><real>.</real></plist>",
                          "<plist other='1'><dict/></plist>",
                          "<plist version=1><dict/></plist>"})
    EXPECT_FALSE(reads(bad)) << bad;
}

TEST(property_list_xml, refuses_other_declarations) {
  const std::string body = in_plist("<dict/>");
  EXPECT_TRUE(reads("<?xml version=\"1.0\"?>" + body));
  EXPECT_FALSE(reads("<?xml version=\"1.1\"?>" + body));
  EXPECT_FALSE(reads("<?xml?>" + body));
  EXPECT_FALSE(reads("<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + body));
  EXPECT_FALSE(reads("<?xml version=\"1.0\"" + body));
}

TEST(property_list_xml, refuses_a_document_type_that_could_define_entities) {
  EXPECT_TRUE(reads("<!DOCTYPE plist>" + in_plist("<dict/>")));
  EXPECT_TRUE(reads("<!DOCTYPE plist SYSTEM 'x'>" + in_plist("<dict/>")));
  EXPECT_FALSE(reads("<!DOCTYPE plist [<!ENTITY a \"b\">]>" + in_plist("<dict/>")));
  EXPECT_FALSE(reads("<!DOCTYPE html>" + in_plist("<dict/>")));
  EXPECT_FALSE(reads("<!DOCTYPE plist PUBLIC \"id\">" + in_plist("<dict/>")));
}

TEST(property_list_xml, refuses_bytes_that_are_no_text) {
  EXPECT_FALSE(reads(in_plist("<string>\xC3</string>")));
  EXPECT_FALSE(reads(in_plist("<string>\xC0\x80</string>")));
  EXPECT_FALSE(reads(in_plist("<string>\xED\xA0\x80</string>")));
  EXPECT_FALSE(reads(in_plist("<string>\xF4\x90\x80\x80</string>")));
  EXPECT_FALSE(reads(in_plist(std::string("<string>a\0b</string>", 20))));
}

TEST(property_list_xml, nesting_has_a_bound) {
  const auto nested = [](int levels) {
    std::string text;
    for (int i = 0; i < levels; ++i) text += "<array>";
    for (int i = 0; i < levels; ++i) text += "</array>";
    return in_plist(text);
  };
  EXPECT_TRUE(reads(nested(64)));
  EXPECT_FALSE(reads(nested(65)));
  EXPECT_FALSE(reads(nested(100000)));
}

TEST(property_list_xml, every_cut_of_a_document_is_refused) {
  const std::string whole =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a&amp;</key><array><true/>"
      "</array></dict></plist>";
  ASSERT_TRUE(reads(whole));
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(reads(whole.substr(0, length))) << length;
}

}  // namespace
}  // namespace platform
