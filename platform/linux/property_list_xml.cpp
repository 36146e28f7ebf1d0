#include "platform/linux/property_list_xml.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/linux/utf8.h"

namespace platform {
namespace {

using kind = property_list::kind;

constexpr int kMaximumDepth = 64;

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
bool all_blank(const std::string& s) {
  return s.find_first_not_of(" \t\r\n") == std::string::npos;
}

std::string trimmed(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

bool consists_of(const std::string& s, std::size_t start, const char* characters) {
  return start < s.size() && s.find_first_not_of(characters, start) == std::string::npos;
}

std::size_t after_sign(const std::string& s) {
  return !s.empty() && (s[0] == '+' || s[0] == '-') ? 1 : 0;
}

constexpr const char* kDecimal = "0123456789";

bool is_decimal(const std::string& s) {
  return consists_of(s, after_sign(s), kDecimal);
}

bool is_integer(const std::string& s) {
  const std::size_t start = after_sign(s);
  if (s.compare(start, 2, "0x") == 0 || s.compare(start, 2, "0X") == 0)
    return consists_of(s, start + 2, "0123456789abcdefABCDEF");
  return is_decimal(s);
}

bool is_real(const std::string& s) {
  const std::size_t start = after_sign(s);
  const std::size_t exponent = std::min(s.find_first_of("eE", start), s.size());
  std::string digits = s.substr(start, exponent - start);
  const std::size_t point = digits.find('.');
  if (point != std::string::npos) digits.erase(point, 1);
  return consists_of(digits, 0, kDecimal) &&
         (exponent == s.size() || is_decimal(s.substr(exponent + 1)));
}

// Each step answers false, for good, on the first error.
class xml_reader {
 public:
  explicit xml_reader(const std::string& xml) : xml_(xml) {}

  bool read(property_list& root) {
    accept("\xEF\xBB\xBF");
    return declaration() && between() && doctype() && between() && accept("<plist") &&
           plist_attributes() && between() && element(root, 0) && between() && end_tag("plist") &&
           between() && at_ == xml_.size();
  }

 private:
  bool sees(const char* token) const { return xml_.compare(at_, std::strlen(token), token) == 0; }

  bool accept(const char* token) {
    if (!sees(token)) return false;
    at_ += std::strlen(token);
    return true;
  }

  bool blanks() {
    const std::size_t start = at_;
    while (at_ < xml_.size() && is_blank(xml_[at_])) ++at_;
    return at_ > start;
  }

  bool skip_past(const char* token) {
    const std::size_t end = xml_.find(token, at_);
    if (end == std::string::npos) return false;
    at_ = end + std::strlen(token);
    return true;
  }

  // A comment, which must not hold "--", or a processing instruction.
  bool comment() { return skip_past("--") && accept(">"); }

  // What may stand between elements; false for an unfinished comment.
  bool between() {
    for (;;) {
      blanks();
      if (accept("<!--")) {
        if (!comment()) return false;
      } else if (accept("<?")) {
        if (!skip_past("?>")) return false;
      } else {
        return true;
      }
    }
  }

  bool quoted(std::string& out) {
    if (!sees("\"") && !sees("'")) return false;
    const std::size_t end = xml_.find(xml_[at_], at_ + 1);
    if (end == std::string::npos) return false;
    out = xml_.substr(at_ + 1, end - at_ - 1);
    at_ = end + 1;
    return out.find('<') == std::string::npos;
  }

  bool attribute(const char* name, std::string& value) {
    if (!accept(name)) return false;
    blanks();
    if (!accept("=")) return false;
    blanks();
    return quoted(value);
  }

  bool declaration() {
    if (!accept("<?xml")) return true;
    std::string value;
    if (!blanks() || !attribute("version", value) || value != "1.0") return false;
    blanks();
    if (sees("encoding") && !(attribute("encoding", value) && is_known_encoding(value)))
      return false;
    blanks();
    if (sees("standalone") && !attribute("standalone", value)) return false;
    blanks();
    return accept("?>");
  }

  static bool is_known_encoding(std::string name) {
    for (char& c : name) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return name == "UTF-8" || name == "US-ASCII";
  }

  // Identifiers are passed over; nothing is ever fetched. An internal subset, which could define
  // entities, is refused.
  bool doctype() {
    if (!accept("<!DOCTYPE")) return true;
    std::string identifier;
    if (!blanks() || !accept("plist")) return false;
    blanks();
    const bool is_public = accept("PUBLIC");
    if (is_public || accept("SYSTEM")) {
      if (!blanks() || !quoted(identifier)) return false;
      if (is_public && !(blanks() && quoted(identifier))) return false;
      blanks();
    }
    return accept(">");
  }

  bool plist_attributes() {
    std::string version;
    if (blanks() && sees("version") && !attribute("version", version)) return false;
    blanks();
    return accept(">");
  }

  // After the name of an end tag.
  bool close_end() {
    blanks();
    return accept(">");
  }

  bool end_tag(const char* name) { return accept("</") && accept(name) && close_end(); }

  // A start tag without attributes; `empty` tells the form <name/>.
  bool start_tag(std::string& name, bool& empty) {
    if (!accept("<")) return false;
    const std::size_t start = at_;
    while (at_ < xml_.size() && xml_[at_] >= 'a' && xml_[at_] <= 'z') ++at_;
    name = xml_.substr(start, at_ - start);
    blanks();
    empty = accept("/");
    return accept(">");
  }

  bool element(property_list& out, int depth) {
    std::string name;
    bool empty = false;
    if (depth >= kMaximumDepth || !start_tag(name, empty)) return false;
    if (name == "dict") return container(out, kind::dictionary, empty, depth);
    if (name == "array") return container(out, kind::array, empty, depth);
    std::string text;
    if (!empty && !content(name.c_str(), text)) return false;
    return scalar(out, name, text);
  }

  bool container(property_list& out, kind type, bool empty, int depth) {
    out.type = type;
    if (empty) return true;
    if (!between()) return false;
    while (!sees("</")) {
      if (type == kind::dictionary && !key(out)) return false;
      property_list item;
      if (!element(item, depth + 1) || !between()) return false;
      out.items.push_back(std::move(item));
    }
    return end_tag(type == kind::dictionary ? "dict" : "array");
  }

  bool key(property_list& out) {
    std::string name;
    std::string text;
    bool empty = false;
    if (!start_tag(name, empty) || name != "key") return false;
    if (!empty && !content("key", text)) return false;
    out.keys.push_back(text);
    return between();
  }

  static bool scalar(property_list& out, const std::string& name, const std::string& text) {
    out.text = name == "string" ? text : trimmed(text);
    if (name == "string") {
      out.type = kind::string;
    } else if (name == "true" || name == "false") {
      out = {kind::boolean, name == "true" ? "1" : "0", {}, {}};
      return all_blank(text);
    } else if (name == "integer" || name == "real") {
      out.type = kind::number;
      return name == "integer" ? is_integer(out.text) : is_real(out.text);
    } else if (name == "date") {
      out.type = kind::date;
    } else if (name == "data") {
      out.type = kind::data;
    } else {
      return false;
    }
    return true;
  }

  // Text up to the end tag `name`, with entities, comments and CDATA sections resolved.
  bool content(const char* name, std::string& out) {
    for (;;) {
      const std::size_t next = xml_.find_first_of("<&", at_);
      if (next == std::string::npos) return false;
      out.append(xml_, at_, next - at_);
      at_ = next;
      if (sees("</")) return end_tag(name);
      if (!markup(out)) return false;
    }
  }

  bool markup(std::string& out) {
    if (accept("&")) return entity(out);
    if (accept("<!--")) return comment();
    if (!accept("<![CDATA[")) return false;
    const std::size_t start = at_;
    if (!skip_past("]]>")) return false;
    out.append(xml_, start, at_ - 3 - start);
    return true;
  }

  bool entity(std::string& out) {
    static constexpr struct {
      const char* name;
      char value;
    } kNamed[] = {{"lt;", '<'}, {"gt;", '>'}, {"amp;", '&'}, {"apos;", '\''}, {"quot;", '"'}};
    for (const auto& named : kNamed) {
      if (!accept(named.name)) continue;
      out += named.value;
      return true;
    }
    return accept("#") && numbered(accept("x") ? 16 : 10, out);
  }

  bool numbered(unsigned base, std::string& out) {
    static constexpr char kDigits[] = "0123456789abcdefABCDEF";
    std::uint32_t code = 0;
    const std::size_t start = at_;
    for (; at_ < xml_.size() && xml_[at_] != ';'; ++at_) {
      const char* digit = std::strchr(kDigits, xml_[at_]);
      if (digit == nullptr || *digit == '\0') return false;
      const auto index = static_cast<std::uint32_t>(digit - kDigits);
      const std::uint32_t value = index < 16 ? index : index - 6;
      if (value >= base || code > 0x10FFFF) return false;
      code = code * base + value;
    }
    return at_ > start && accept(";") && is_xml_character(code) && append_utf8(out, code);
  }

  static bool is_xml_character(std::uint32_t code) {
    return code == '\t' || code == '\n' || code == '\r' || (code >= 0x20 && code < 0xFFFE) ||
           code > 0xFFFF;
  }

  const std::string& xml_;
  std::size_t at_ = 0;
};

}  // namespace

const property_list* property_list::find(const std::string& key) const {
  if (type != kind::dictionary) return nullptr;
  for (std::size_t i = keys.size(); i-- > 0;)
    if (keys[i] == key) return &items[i];
  return nullptr;
}

nil_string property_list::scalar_text() const {
  if (type == kind::string || type == kind::number || type == kind::boolean) return text;
  return std::nullopt;
}

std::optional<property_list> read_property_list_xml(const std::string& xml) {
  property_list root;
  if (xml.find('\0') != std::string::npos || !is_utf8(xml)) return std::nullopt;
  return xml_reader(xml).read(root) ? std::optional(std::move(root)) : std::nullopt;
}

}  // namespace platform
