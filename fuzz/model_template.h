#pragma once

/// Second readings of message templates and of the texts of values: by looking ahead in the
/// template, and with the placeholders' numbers compared as texts.

#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

inline std::size_t digits_at(std::string_view text) {
  std::size_t count = 0;
  while (count < text.size() && text[count] >= '0' && text[count] <= '9') ++count;
  return count;
}

inline std::string unsigned_text(unsigned long long value) {
  std::string text(1, static_cast<char>('0' + value % 10));
  while ((value /= 10) != 0) text.insert(text.begin(), static_cast<char>('0' + value % 10));
  return text;
}

inline std::string signed_text(long long value) {
  if (value >= 0) return unsigned_text(static_cast<unsigned long long>(value));
  return '-' + unsigned_text(0 - static_cast<unsigned long long>(value));
}

/// The argument that a placeholder's digits name; empty for none.
inline std::string argument_of(std::string_view digits, const std::vector<std::string>& arguments) {
  while (digits.size() > 1 && digits[0] == '0') digits.remove_prefix(1);
  for (std::size_t i = 0; i < arguments.size(); ++i)
    if (digits == unsigned_text(i + 1)) return arguments[i];
  return "";
}

inline std::string filled(std::string_view tmpl, const std::vector<std::string>& arguments) {
  std::string out;
  while (!tmpl.empty()) {
    const std::size_t digits = digits_at(tmpl.substr(1));
    std::size_t taken = 1;
    if (tmpl[0] != '%' || tmpl.size() == 1) {
      out += tmpl[0];
    } else if (digits > 0 && tmpl.substr(1 + digits, 1) == "%") {
      out += argument_of(tmpl.substr(1, digits), arguments);
      taken = digits + 2;
    } else {
      out += '%';
      if (tmpl[1] == '%') taken = 2;
    }
    tmpl.remove_prefix(taken);
  }
  return out;
}

/// The number at the front of a text; 0 for none, the nearest limit for one that does not fit.
inline int number_in(std::string_view text) {
  while (!text.empty() && (text[0] == ' ' || (text[0] >= '\t' && text[0] <= '\r')))
    text.remove_prefix(1);
  const bool negative = !text.empty() && text[0] == '-';
  if (negative || (!text.empty() && text[0] == '+')) text.remove_prefix(1);
  long long value = 0;
  for (const char digit : text.substr(0, digits_at(text)))
    if (value < 10'000'000'000) value = value * 10 + (digit - '0');
  if (negative) value = -value;
  if (value > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (value < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

}  // namespace fuzz
