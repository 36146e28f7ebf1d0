#include "osx/property_list.h"

#include "osx/plist_document.h"
#include "osx/xml_block.h"

namespace muro {
namespace {

std::vector<std::string> strings_until_null(const char** values) {
  std::vector<std::string> strings;
  for (; *values != nullptr; ++values) strings.emplace_back(*values);
  return strings;
}

}  // namespace

plist_elem::plist_elem(const std::string& key, const std::string& value) {
  xml_block block(text_);
  put_string(block, key, value);
  block.finish();
}

plist_elem::plist_elem(const std::string& key, const char* value)
    : plist_elem(key, std::string(value != nullptr ? value : "")) {}

plist_elem::plist_elem(const std::string& key, bool value) {
  xml_block block(text_);
  put_bool(block, key, value);
  block.finish();
}

plist_elem::plist_elem(const std::string& key, const std::vector<std::string>& values) {
  xml_block block(text_);
  put_strings(block, key, values);
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
  std::size_t size = sizeof kPlistHead - 1 + sizeof kPlistTail - 1;
  for (const plist_elem& element : elements) size += element.text().size() + 1;
  std::string document;
  document.reserve(size);
  document += kPlistHead;
  for (const plist_elem& element : elements) {
    document += element.text();
    document += '\n';
  }
  document += kPlistTail;
  return document;
}

}  // namespace muro
