#include "osx/plist_document.h"

#include <utility>

namespace muro {
namespace {

void put_key(xml_block& block, std::string_view key) {
  block.put("<key>");
  block.put_escaped(key);
  block.put("</key>\n");
}

template <class Strings>
void put_array(xml_block& block, std::string_view key, const Strings& values) {
  put_key(block, key);
  block.put("<array>\n");
  for (const std::string_view value : values) {
    block.put("\t<string>");
    block.put_escaped(value);
    block.put("</string>\n");
  }
  block.put("</array>");
}

}  // namespace

void put_string(xml_block& block, std::string_view key, std::string_view value) {
  put_key(block, key);
  block.put("<string>");
  block.put_escaped(value);
  block.put("</string>");
}

void put_bool(xml_block& block, std::string_view key, bool value) {
  put_key(block, key);
  if (value) {
    block.put("<true/>");
  } else {
    block.put("<false/>");
  }
}

void put_strings(xml_block& block, std::string_view key, const std::vector<std::string>& values) {
  put_array(block, key, values);
}

void plist_document::add_string(std::string_view key, std::string_view value) {
  put_string(block_, key, value);
  block_.put("\n");
}

void plist_document::add_bool(std::string_view key, bool value) {
  put_bool(block_, key, value);
  block_.put("\n");
}

void plist_document::add_strings(std::string_view key, const std::vector<std::string>& values) {
  put_array(block_, key, values);
  block_.put("\n");
}

void plist_document::add_strings(std::string_view key,
                                 std::initializer_list<std::string_view> values) {
  put_array(block_, key, values);
  block_.put("\n");
}

std::string plist_document::finish() {
  block_.put(kPlistTail);
  block_.finish();
  return std::move(text_);
}

}  // namespace muro
