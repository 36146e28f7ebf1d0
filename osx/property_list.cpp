#include "osx/property_list.h"

#include "osx/xml_writer.h"

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

std::vector<std::string> strings_until_null(const char** values) {
  std::vector<std::string> strings;
  for (; *values != nullptr; ++values) strings.emplace_back(*values);
  return strings;
}

}  // namespace

plist_elem::plist_elem(const std::string& key, const std::string& value) {
  add_key(key);
  add_text("string", value);
}

plist_elem::plist_elem(const std::string& key, const char* value)
    : plist_elem(key, std::string(value != nullptr ? value : "")) {}

plist_elem::plist_elem(const std::string& key, bool value) {
  add_key(key);
  text_ += value ? "<true/>" : "<false/>";
}

plist_elem::plist_elem(const std::string& key, const std::vector<std::string>& values) {
  add_key(key);
  text_ += "<array>\n";
  for (const std::string& value : values) {
    text_ += '\t';
    add_text("string", value);
    text_ += '\n';
  }
  text_ += "</array>";
}

plist_elem::plist_elem(const std::string& key, const char** values)
    : plist_elem(key, strings_until_null(values)) {}

void plist_elem::add_key(const std::string& key) {
  add_text("key", key);
  text_ += '\n';
}

void plist_elem::add_text(const std::string& name, const std::string& text) {
  xml_write_string writer(&text_);
  writer.xml_sax_element_begin(name);
  writer.xml_sax_element_children();
  writer.xml_sax_text(text);
  writer.xml_sax_element_end(name);
}

std::string get_plist(const std::vector<plist_elem>& elements) {
  std::string document = kHead;
  for (const plist_elem& element : elements) {
    document += element.text();
    document += '\n';
  }
  document += kTail;
  return document;
}

}  // namespace muro
