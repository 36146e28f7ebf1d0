#include "platform/linux/argument_value.h"

#include <cstdlib>
#include <cstring>

#include "platform/linux/property_list_xml.h"
#include "platform/linux/utf8.h"

namespace platform {
namespace {

// Deeper nesting than this is taken for no property list: a stack must not depend on an argument.
constexpr int kMaximumDepth = 64;

bool is_blank(char c) {
  return c != '\0' && std::strchr(" \t\n\r\f\v", c) != nullptr;
}
bool is_hex(char c) {
  return c != '\0' && std::strchr("0123456789abcdefABCDEF", c) != nullptr;
}
bool is_octal(char c) {
  return c >= '0' && c <= '7';
}
bool is_word(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("_$/:.-", c) != nullptr);
}

// Reads one old-style property list. Each step answers false, for good, on a syntax error.
class old_style_reader {
 public:
  explicit old_style_reader(const std::string& text) : at_(text.c_str()) {}

  /// The whole text is one value; `string` receives it, or nil when it is none.
  bool read(nil_string& string) { return skip() && value(string, 0) && skip() && *at_ == '\0'; }

 private:
  bool take(char c) {
    if (*at_ != c) return false;
    ++at_;
    return true;
  }

  // Blanks and comments; false when a comment has no end.
  bool skip() {
    for (;;) {
      while (is_blank(*at_)) ++at_;
      if (at_[0] == '/' && at_[1] == '/') {
        while (*at_ != '\0' && *at_ != '\n') ++at_;
      } else if (at_[0] == '/' && at_[1] == '*') {
        const char* end = std::strstr(at_ + 2, "*/");
        if (end == nullptr) return false;
        at_ = end + 2;
      } else {
        return true;
      }
    }
  }

  bool value(nil_string& string, int depth) {
    if (depth > kMaximumDepth) return false;
    string.reset();
    if (take('(')) return array(depth);
    if (take('{')) return dictionary(depth);
    if (take('<')) return data();
    string.emplace();
    return text(*string);
  }

  bool array(int depth) {
    nil_string ignored;
    if (!skip()) return false;
    while (!take(')')) {
      if (!value(ignored, depth + 1) || !skip()) return false;
      if (!take(',')) return take(')');
      if (!skip()) return false;
    }
    return true;
  }

  bool dictionary(int depth) {
    std::string key;
    nil_string ignored;
    if (!skip()) return false;
    while (!take('}')) {
      key.clear();
      if (!text(key) || !skip() || !take('=') || !skip()) return false;
      if (!value(ignored, depth + 1) || !skip() || !take(';') || !skip()) return false;
    }
    return true;
  }

  bool data() {
    unsigned digits = 0;
    while (is_hex(*at_) || is_blank(*at_)) digits += is_hex(*at_++) ? 1U : 0U;
    return take('>') && digits % 2 == 0;
  }

  bool text(std::string& out) {
    if (*at_ == '"' || *at_ == '\'') return quoted(*at_++, out);
    const char* begin = at_;
    while (is_word(*at_)) ++at_;
    out.assign(begin, at_);
    return at_ != begin;
  }

  bool quoted(char quote, std::string& out) {
    while (*at_ != '\0' && *at_ != quote) {
      if (!take('\\')) {
        out += *at_++;
      } else if (!escape(out)) {
        return false;
      }
    }
    return take(quote);
  }

  bool escape(std::string& out) {
    static constexpr char kNames[] = "abfnrtv";
    static constexpr char kValues[] = "\a\b\f\n\r\t\v";
    if (*at_ == '\0') return false;
    if (is_octal(*at_)) return number(8, 3, 0x7F, out);
    if (take('U')) return number(16, 4, 0xFFFF, out);
    const char* name = std::strchr(kNames, *at_);
    out += name != nullptr ? kValues[name - kNames] : *at_;
    ++at_;
    return true;
  }

  // Codes above `maximum` (an old encoding's upper half, surrogates) and the zero byte, which
  // no argument can hold, make the text no property list.
  bool number(int base, int most, unsigned long maximum, std::string& out) {
    char digits[5] = {};
    for (int i = 0; i < most && (base == 8 ? is_octal(*at_) : is_hex(*at_)); ++i)
      digits[i] = *at_++;
    const unsigned long code = std::strtoul(digits, nullptr, base);
    return code != 0 && code <= maximum && append_utf8(out, static_cast<std::uint32_t>(code));
  }

  const char* at_;
};

}  // namespace

nil_string argument_string(const std::string& text) {
  if (const auto list = read_property_list_xml(text)) return list->scalar_text();
  nil_string string;
  return old_style_reader(text).read(string) ? string : nil_string(text);
}

bool text_is_true(const std::string& text) {
  const char* at = text.c_str();
  while (is_blank(*at)) ++at;
  if (*at == '+' || *at == '-') ++at;
  while (*at == '0') ++at;
  return *at != '\0' && std::strchr("123456789YyTt", *at) != nullptr;
}

}  // namespace platform
