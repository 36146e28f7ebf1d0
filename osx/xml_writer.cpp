#include "osx/xml_writer.h"

#include "muro/sys/strings.h"
#include "osx/unicode.h"

namespace muro {
namespace {

struct escaper {
  std::string* out;
  xml_escape_mode mode;
};

bool is_between(unsigned int code_point, unsigned int first, unsigned int last) {
  return code_point >= first && code_point <= last;
}

// Deliberate: U+007F is dropped and U+0085 kept, and of the noncharacters U+FDD0 to U+FDEF only the
// first sixteen are dropped; the allowed ranges are a fixed list, not a rule about character kinds.
bool is_allowed(unsigned int code_point) {
  if (code_point == 0x09 || code_point == 0x0A || code_point == 0x0D || code_point == 0x85) {
    return true;
  }
  if (is_between(code_point, 0x10000, 0x10FFFF)) return (code_point & 0xFFFE) != 0xFFFE;
  return is_between(code_point, 0x20, 0x7E) || is_between(code_point, 0xA0, 0xD7FF) ||
         is_between(code_point, 0xE000, 0xFDCF) || is_between(code_point, 0xFDE0, 0xFFFD);
}

// Deliberate: the apostrophe has no entity in either mode.
const char* entity_for(unsigned int code_point, xml_escape_mode mode) {
  switch (code_point) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return mode == xml_escape_mode::attribute ? "&quot;" : nullptr;
    default:
      return nullptr;
  }
}

void append_bytes(void* context, const unsigned char* bytes, std::size_t length) {
  static_cast<escaper*>(context)->out->append(reinterpret_cast<const char*>(bytes), length);
}

void flush_run(escaper& to, const unsigned int* first, const unsigned int* last) {
  if (first == last) return;
  xstd::llvm_convert_native_utf32_to_utf8(first, static_cast<std::size_t>(last - first),
                                          append_bytes, &to);
}

// Runs of unchanged code points are converted back in one go; an entity or a dropped code point
// ends the run before it.
void escape_block(void* context, const unsigned int* code_points, std::size_t count) {
  escaper& to = *static_cast<escaper*>(context);
  const unsigned int* const end = code_points + count;
  const unsigned int* pending = code_points;
  for (const unsigned int* at = code_points; at != end; ++at) {
    const bool allowed = is_allowed(*at);
    const char* const entity = allowed ? entity_for(*at, to.mode) : nullptr;
    if (allowed && entity == nullptr) continue;
    flush_run(to, pending, at);
    if (entity != nullptr) to.out->append(entity);
    pending = at + 1;
  }
  flush_run(to, pending, end);
}

void escape(std::string& out, const char* utf8, std::size_t length, xml_escape_mode mode) {
  escaper to{&out, mode};
  xstd::llvm_convert_utf8_to_native_utf32(reinterpret_cast<const unsigned char*>(utf8), length,
                                          escape_block, &to);
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
