#pragma once

/// Second readings of the Unicode conversions and of XML text: one character at a time, by trial
/// and from lists, where the product goes by tables, masks and blocks.

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

inline bool is_scalar(unsigned value) {
  return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

/// The one UTF-8 form of a scalar value; of all else, that of the replacement character.
struct utf8_form {
  char bytes[4];
  std::size_t length;

  explicit utf8_form(unsigned value) {
    if (!is_scalar(value)) value = 0xFFFD;
    length = value < 0x80 ? 1 : value < 0x800 ? 2 : value < 0x10000 ? 3 : 4;
    static constexpr unsigned kLead[] = {0, 0xC0, 0xE0, 0xF0};
    for (std::size_t i = length - 1; i > 0; --i) {
      bytes[i] = static_cast<char>(0x80 + value % 64);
      value /= 64;
    }
    bytes[0] = static_cast<char>(kLead[length - 1] + value);
  }
  std::string_view text() const { return {bytes, length}; }
};

/// The number of bytes at the front of `text` that are the form of a scalar value; 0 for none.
inline std::size_t first_scalar(std::string_view text, unsigned& value) {
  static constexpr unsigned kLeadBits[] = {128, 32, 16, 8};
  for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
    value = static_cast<unsigned char>(text[0]) % kLeadBits[length - 1];
    for (std::size_t i = 1; i < length; ++i)
      value = value * 64 + static_cast<unsigned char>(text[i]) % 64;
    if (is_scalar(value) && utf8_form(value).text() == text.substr(0, length)) return length;
  }
  return 0;
}

/// What begins no form loses one byte. That takes a form cut short by the end along as a whole,
/// since its other bytes begin none either.
inline std::vector<unsigned> scalars_of(std::string_view text) {
  std::vector<unsigned> found;
  found.reserve(text.size());
  while (!text.empty()) {
    unsigned value = 0;
    const std::size_t length = first_scalar(text, value);
    if (length != 0) found.push_back(value);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return found;
}

inline bool has_place_in_xml(unsigned value) {
  static constexpr unsigned kAllowed[][2] = {
      {0x9, 0x9},     {0xA, 0xA},       {0xD, 0xD},       {0x20, 0x7E},       {0x85, 0x85},
      {0xA0, 0xD7FF}, {0xE000, 0xFDCF}, {0xFDE0, 0xFFFD}, {0x10000, 0x10FFFF}};
  if (value > 0xFFFF && value % 0x10000 >= 0xFFFE) return false;
  for (const auto& range : kAllowed)
    if (value >= range[0] && value <= range[1]) return true;
  return false;
}

inline void append_xml(std::string& out, unsigned value, bool in_attribute) {
  if (!has_place_in_xml(value)) return;
  if (value == '&')
    out += "&amp;";
  else if (value == '<')
    out += "&lt;";
  else if (value == '>')
    out += "&gt;";
  else if (value == '"' && in_attribute)
    out += "&quot;";
  else
    out += utf8_form(value).text();
}

inline std::string escaped_xml(std::string_view text, bool in_attribute) {
  std::string out;
  for (const unsigned value : scalars_of(text)) append_xml(out, value, in_attribute);
  return out;
}

/// A text with line ends and tabs as blanks.
inline std::string prepared(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool pair = text.substr(i, 2) == "\r\n";
    out += text[i] == '\r' || text[i] == '\n' || text[i] == '\t' ? ' ' : text[i];
    if (pair) ++i;
  }
  return out;
}

inline std::string xml_element(std::string_view name, std::string_view text) {
  std::string out = "<";
  out.append(name).append(">").append(escaped_xml(text, false));
  return out.append("</").append(name).append(">");
}

}  // namespace fuzz
