#include "osx/xml_writer.h"

#include <algorithm>

#include "muro/sys/strings.h"
#include "osx/xml_block.h"

namespace muro {
namespace {

// Room at once for a text that would have the string grow block by block. At least twice what there
// was, or many such texts would each have it copied.
void make_room(std::string& out, std::size_t length) {
  constexpr std::size_t kLong = 1024;
  const std::size_t needed = out.size() + length;
  if (length > kLong && needed > out.capacity()) out.reserve(std::max(needed, 2 * out.capacity()));
}

void escape(std::string& out, const char* utf8, std::size_t length, xml_escape_mode mode) {
  make_room(out, length);
  xml_block block(out);
  block.put_escaped({utf8, length}, mode);
  block.finish();
}

}  // namespace

void escape_xml_text(std::string& out, const char* utf8, std::size_t length) {
  escape(out, utf8, length, xml_escape_mode::text);
}

void escape_xml_attribute(std::string& out, const char* utf8, std::size_t length) {
  escape(out, utf8, length, xml_escape_mode::attribute);
}

void xml_sax_events::xml_sax_prepare(std::string& text) {
  prepare_attribute(text);
}

// The pair goes first, or it would become two blanks.
void xml_sax_events::prepare_attribute(std::string& text) {
  for (const char* white_space : {"\r\n", "\r", "\n", "\t"}) replace_all(text, white_space, " ");
}

void xml_write_string::xml_sax_element_begin(const std::string& name) {
  *out_ += '<';
  *out_ += name;
}

void xml_write_string::xml_sax_element_attribute(const std::string& name,
                                                 const std::string& value) {
  *out_ += ' ';
  *out_ += name;
  *out_ += "=\"";
  escape_xml_attribute(*out_, value.data(), value.size());
  *out_ += '"';
}

void xml_write_string::xml_sax_element_children() {
  *out_ += '>';
}

void xml_write_string::xml_sax_element_end(const std::string& name) {
  *out_ += "</";
  *out_ += name;
  *out_ += '>';
}

void xml_write_string::xml_sax_element_end_empty() {
  *out_ += "/>";
}

void xml_write_string::xml_sax_text(const std::string& text) {
  escape_xml_text(*out_, text.data(), text.size());
}

void xml_write_string::xml_sax_comment(const std::string& text) {
  *out_ += "<!--";
  *out_ += text;
  *out_ += "-->";
}

}  // namespace muro
