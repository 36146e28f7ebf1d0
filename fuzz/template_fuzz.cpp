// Message templates, and the texts of values. The input is a digit, that many lines with an
// argument each, and the template: all that is left. An argument's first byte is its kind:
//
//   i u b r c   a number, a bool, a raw 64-bit word or a character, from the bytes that follow
//   n           a null pointer
//   p           padded: the bytes that follow are the fill character, the width and the text
//   d           the text is read as a number, and that is the argument
//   j           several values joined to one text
//   all else: the text after it
//
// For every template and arguments the filled text is the one of a second implementation
// (model_template.h), before the last argument and with it; a copy goes its own way. Digits of any
// length are no number that is too large to be compared.

#include "fuzz/model_template.h"

#include <cstring>

#include "fuzz/target.h"
#include "muro/core/fmt.h"

namespace {

unsigned long long word_of(std::string_view bytes) {
  unsigned long long value = 0;
  std::memcpy(&value, bytes.data(), std::min<std::size_t>(bytes.size(), sizeof value));
  return value;
}

template <class T>
std::string add_plain(muro::fmt& to, const T& value, std::string wanted) {
  to._add_arg(value, 0, 0);
  return wanted;
}

/// Right-aligned in `width` columns.
std::string padded(std::string text, char fill, std::size_t width) {
  if (text.size() < width) text.insert(0, width - text.size(), fill);
  return text;
}

std::string add_padded(muro::fmt& to, fuzz::input in) {
  const char fill = static_cast<char>(in.byte());
  const unsigned char width = in.byte();
  const std::string text(in.rest());
  const int number = static_cast<int>(word_of(text));
  const char shown = fill == 0 ? ' ' : fill;
  if (text.size() != sizeof number) {
    to._add_arg(text, fill, width);
    return padded(text, shown, width);
  }
  to._add_arg(number, fill, width);
  return padded(fuzz::signed_text(number), shown, width);
}

std::string add_joined(muro::fmt& to, const std::string& text) {
  const int number = static_cast<int>(word_of(text));
  to.add(muro::stringify(text, '.', number, ",", text.c_str(), number < 0));
  std::string wanted = text;
  wanted += '.' + fuzz::signed_text(number) + ',' + text.c_str();
  return wanted + (number < 0 ? '1' : '0');
}

/// Adds the argument that `line` tells; gives its text by the second implementation.
std::string add(muro::fmt& to, std::string_view line) {
  const char kind = line.empty() ? '\0' : line[0];
  const std::string text(line.substr(line.empty() ? 0 : 1));
  const unsigned long long word = word_of(text);
  const char* const nothing = nullptr;
  switch (kind) {
    case 'i':
      return add_plain(to, static_cast<int>(word), fuzz::signed_text(static_cast<int>(word)));
    case 'u':
      return add_plain(to, static_cast<unsigned>(word),
                       fuzz::unsigned_text(static_cast<unsigned>(word)));
    case 'b':
      return add_plain(to, word % 2 != 0, word % 2 != 0 ? "1" : "0");
    case 'r':
      return add_plain(to, muro::raw_endian<unsigned long long, true>(word),
                       fuzz::unsigned_text(word));
    case 'c':
      return add_plain(to, static_cast<char>(word), std::string(1, static_cast<char>(word)));
    case 'n':
      return add_plain(to, nothing, "(null)");
    case 'p':
      return add_padded(to, fuzz::input(text));
    case 'd':
      return add_plain(to, muro::destringify<int>(text), fuzz::signed_text(fuzz::number_in(text)));
    case 'j':
      return add_joined(to, text);
    default:
      to.add(text);
      return text;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::input in(data, size);
  const unsigned count = in.byte() % 16u;
  std::vector<std::string_view> lines;
  for (unsigned i = 0; i < count; ++i) lines.push_back(in.until('\n'));
  const std::string tmpl(in.rest());

  muro::fmt product(tmpl);
  std::vector<std::string> arguments;
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) arguments.push_back(add(product, lines[i]));
  muro::fmt longer = product;
  fuzz::require_equal(product.str(), fuzz::filled(tmpl, arguments), "the filled text");
  if (lines.empty()) return 0;
  const std::string before = product.str();
  arguments.push_back(add(longer, lines.back()));
  fuzz::require_equal(longer.str(), fuzz::filled(tmpl, arguments), "with one argument more");
  fuzz::require_equal(product.str(), before, "a copy changes nothing but itself");
  return 0;
}
