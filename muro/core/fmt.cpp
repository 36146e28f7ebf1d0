#include "muro/core/fmt.h"

#include <algorithm>
#include <utility>

namespace muro {

namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

/// 0, which no argument ever has, for a number too large for an int.
int placeholder_number(const std::string& digits) {
  int number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

}  // namespace

fmt::fmt(const std::string& tmpl) {
  enum { text, percent, number } state = text;
  std::string literal, digits;
  // A placeholder takes two percents, so there can be no more of them than this.
  const auto most = static_cast<std::size_t>(std::count(tmpl.begin(), tmpl.end(), '%')) / 2;
  slots_.reserve(most);
  pieces_.reserve(2 * most + 1);
  for (const char c : tmpl) {
    if (state == text) {
      if (c == '%') {
        state = percent;
      } else {
        literal += c;
      }
    } else if (is_digit(c)) {
      digits += c;
      state = number;
    } else if (state == number && c == '%') {
      add_placeholder(literal, digits);
      state = text;
    } else {
      // "%%" is one "%"; any other "%", with the digits after it, was no placeholder.
      if (state == number || c != '%') literal += '%';
      literal += digits;
      literal += c;
      digits.clear();
      state = text;
    }
  }
  if (state != text) literal += '%';
  pieces_.push_back(std::move(literal += digits));
}

void fmt::add_placeholder(std::string& literal, std::string& digits) {
  pieces_.push_back(std::move(literal));
  slots_.push_back({placeholder_number(digits), pieces_.size()});
  pieces_.emplace_back();
  literal.clear();
  digits.clear();
}

void fmt::add(const std::string& value) {
  const int number = static_cast<int>(++next_arg_);
  for (const slot& s : slots_) {
    if (s.number == number) pieces_.at(s.piece) = value;
  }
}

std::string fmt::str() const {
  std::size_t size = 0;
  for (const std::string& piece : pieces_) size += piece.size();
  std::string result;
  result.reserve(size);
  for (const std::string& piece : pieces_) result += piece;
  return result;
}

}  // namespace muro
