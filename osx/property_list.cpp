#include "osx/property_list.h"

#include "osx/xml_block.h"

namespace muro {
namespace {

constexpr char kHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n";
static_assert(sizeof kHead - 1 == 171);

// Deliberate: no line end after the last line.
constexpr char kTail[] =
    "</dict>\n"
    "</plist>";

void put_key(xml_block& block, const std::string& key) {
  block.put("<key>");
  block.put_escaped(key);
  block.put("</key>\n");
}

void put_string(xml_block& block, const std::string& value) {
  block.put("<string>");
  block.put_escaped(value);
  block.put("</string>");
}

std::vector<std::string> strings_until_null(const char** values) {
  std::vector<std::string> strings;
  for (; *values != nullptr; ++values) strings.emplace_back(*values);
  return strings;
}

}  // namespace

plist_elem::plist_elem(const std::string& key, const std::string& value) {
  xml_block block(text_);
  put_key(block, key);
  put_string(block, value);
  block.finish();
}

plist_elem::plist_elem(const std::string& key, const char* value)
    : plist_elem(key, std::string(value != nullptr ? value : "")) {}

plist_elem::plist_elem(const std::string& key, bool value) {
  xml_block block(text_);
  put_key(block, key);
  if (value) {
    block.put("<true/>");
  } else {
    block.put("<false/>");
  }
  block.finish();
}

plist_elem::plist_elem(const std::string& key, const std::vector<std::string>& values) {
  xml_block block(text_);
  put_key(block, key);
  block.put("<array>\n");
  for (const std::string& value : values) {
    block.put("\t");
    put_string(block, value);
    block.put("\n");
  }
  block.put("</array>");
  block.finish();
}

plist_elem::plist_elem(const std::string& key, const char** values)
    : plist_elem(key, strings_until_null(values)) {}

void plist_elem::add_text(const std::string& name, const std::string& text) {
  xml_write_string writer(&text_);
  writer.xml_sax_element_begin(name);
  writer.xml_sax_element_children();
  writer.xml_sax_text(text);
  writer.xml_sax_element_end(name);
}

std::string get_plist(const std::vector<plist_elem>& elements) {
  std::size_t size = sizeof kHead - 1 + sizeof kTail - 1;
  for (const plist_elem& element : elements) size += element.text().size() + 1;
  std::string document;
  document.reserve(size);
  document += kHead;
  for (const plist_elem& element : elements) {
    document += element.text();
    document += '\n';
  }
  document += kTail;
  return document;
}

}  // namespace muro
