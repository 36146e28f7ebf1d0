#pragma once

/// Message templates with numbered placeholders: "%1%" stands for the first argument, "%2%" for
/// the second; "%%" is one "%". What is no complete placeholder stays text.
///
///     template   "Moved %1% to %2%, 100%% done"
///     pieces     "Moved " [1] " to " [2] ", 100% done"      literal, slot, literal, slot, literal
///
/// Also here: joining values into one string and reading a number from one. Numbers are written
/// and read in the "C" locale, whatever locale the process has set, so that a log line or a file
/// name never depends on it. Nothing here throws but `std::bad_alloc` and what a value's own
/// `operator<<` throws.

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace muro {

/// An integer kept as its bytes in host order, without alignment; its text is the unsigned decimal
/// value of the bytes. Deliberate: no byte swap is done, whatever `Little` says.
template <class T, bool Little>
struct raw_endian {
  unsigned char bytes[sizeof(T)];

  raw_endian() : bytes{} {}
  raw_endian(T value) { std::memcpy(bytes, &value, sizeof value); }
  operator T() const {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }
};

/// How a value becomes text. The kinds that messages are made of are appended to a string without
/// a stream; every other kind goes through one. Both roads give the same characters, except that a
/// null `const char*` is "(null)" here and no character array is read past its end.
namespace conversion {

template <class T, class... Kinds>
inline constexpr bool is_one_of = (std::is_same_v<T, Kinds> || ...);

template <class T>
inline constexpr bool is_char_array =
    std::is_array_v<T>&& std::is_same_v<std::remove_cv_t<std::remove_extent_t<T>>, char>;

template <class T>
inline constexpr bool is_text =
    is_one_of<T, std::string, std::string_view, const char*, char*> || is_char_array<T>;

template <class T>
inline constexpr bool is_integer = is_one_of<T, short, unsigned short, int, unsigned, long,
                                             unsigned long, long long, unsigned long long>;

template <class T>
inline constexpr bool is_raw_endian = false;
template <class T, bool Little>
inline constexpr bool is_raw_endian<raw_endian<T, Little>> = true;

/// Converted without a stream.
template <class T>
inline constexpr bool is_simple =
    is_text<T> || is_integer<T> || is_raw_endian<T> || is_one_of<T, bool, char>;

template <class T>
std::string_view text_of(const T& value) {
  if constexpr (is_char_array<T>) {
    const void* end = std::memchr(value, 0, sizeof value);
    return {value, end != nullptr ? std::strlen(value) : sizeof value};
  } else if constexpr (std::is_pointer_v<T>) {
    return value != nullptr ? std::string_view(value) : std::string_view("(null)");
  } else {
    return value;
  }
}

/// Writes the digits at `out`, which has room for 24, and gives their end.
template <class T>
char* write_integer(char* out, T value) {
  return std::to_chars(out, out + 24, value).ptr;
}

template <class T, bool Little>
char* write_integer(char* out, const raw_endian<T, Little>& value) {
  return write_integer(out, static_cast<unsigned long long>(
                                static_cast<std::make_unsigned_t<T>>(static_cast<T>(value))));
}

template <class T>
void write(std::ostream& out, const T& value) {
  if constexpr (is_text<T>) {
    out << text_of(value);
  } else if constexpr (is_raw_endian<T>) {
    char digits[24];
    out << std::string_view(digits,
                            static_cast<std::size_t>(write_integer(digits, value) - digits));
  } else {
    out << value;
  }
}

/// As a stream writes it; `fill` and `width` other than 0 are the stream's.
template <class T>
std::string streamed(const T& value, char fill, unsigned char width) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  if (fill != 0) out.fill(fill);
  if (width != 0) out.width(width);
  write(out, value);
  return out.str();
}

/// A value's text, without an allocation where the kind is simple. Lives no longer than the value;
/// stays where it was made, as the text may lie in it.
template <class T>
class rendered {
 public:
  explicit rendered(const T& value) {
    if constexpr (is_text<T>) {
      text_ = text_of(value);
    } else if constexpr (std::is_same_v<T, char>) {
      text_ = {&value, 1};
    } else if constexpr (std::is_same_v<T, bool>) {
      text_ = value ? "1" : "0";
    } else if constexpr (is_simple<T>) {
      text_ = {room_, static_cast<std::size_t>(write_integer(room_, value) - room_)};
    } else {
      text_ = room_ = streamed(value, 0, 0);
    }
  }
  rendered(const rendered&) = delete;
  rendered& operator=(const rendered&) = delete;

  std::string_view text() const { return text_; }

 private:
  struct none {};
  static constexpr bool kIsNumber = is_integer<T> || is_raw_endian<T>;
  using room = std::conditional_t<is_simple<T>, none, std::string>;

  std::string_view text_;
  std::conditional_t<kIsNumber, char[24], room> room_;
};

}  // namespace conversion

/// `tmpl` with its placeholders filled: "%1%" with the first value, and so on.
std::string fill_views(std::string_view tmpl, const std::string_view* values, std::size_t count);

/// The same with values of any kind, each as `fmt::_add_arg` adds it without fill and width. What
/// `fmt` and `str()` give, by the shortest road: one pass over the template and one allocation.
template <class... Args>
std::string fill_template(std::string_view tmpl, const Args&... args) {
  const std::initializer_list<std::string_view> none;
  const auto fill = [tmpl](std::initializer_list<std::string_view> values) {
    return fill_views(tmpl, values.begin(), values.size());
  };
  if constexpr (sizeof...(Args) == 0) return fill(none);
  return fill({conversion::rendered<Args>(args).text()...});
}

/// A template and the arguments added so far. A plain value that owns its strings; one thread at a
/// time. Placeholders are looked for when the text is asked for.
class fmt {
 public:
  explicit fmt(std::string tmpl) : template_(std::move(tmpl)) {}

  /// Fills every occurrence of the next number, starting at 1, with `value`; a number that does
  /// not occur is ignored.
  void add(std::string value) { values_.push_back(std::move(value)); }

  /// Adds `value` as text: strings as they are, a null `const char*` as "(null)", numbers in
  /// decimal, a bool as "1" or "0", all else as an output stream writes it. `fill` and `width`
  /// other than 0 are the stream's: right-aligned, padded with `fill` (a blank when 0).
  template <class T>
  void _add_arg(const T& value, char fill, unsigned char width) {
    if (fill == 0 && width == 0) {
      add(std::string(conversion::rendered<T>(value).text()));
    } else {
      add(conversion::streamed(value, fill, width));
    }
  }

  /// The filled text. A placeholder whose number was never added is empty; so is "%0%", and one
  /// whose number is above the largest 32-bit int.
  std::string str() const;

 private:
  std::string template_;
  std::vector<std::string> values_;
};

/// Joins the arguments without separators, each as an output stream writes it; a null
/// `const char*` is "(null)".
template <class... Args>
std::string stringify(const Args&... args) {
  if constexpr ((conversion::is_simple<Args> && ...)) {
    std::string out;
    (out.append(conversion::rendered<Args>(args).text()), ...);
    return out;
  } else {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    (conversion::write(out, args), ...);
    return out.str();
  }
}

/// Reads a decimal number from the front of `s` as an input stream does: leading blanks are
/// skipped, reading ends at the first character that is no part of the number. What is no number
/// gives 0, one that does not fit gives the nearest limit.
template <class T>
T destringify(const std::string& s) {
  static_assert(std::is_signed_v<T> && conversion::is_integer<T>);
  const char* const end = s.data() + s.size();
  const char* begin = s.data() + std::min(s.find_first_not_of(" \t\n\v\f\r"), s.size());
  if (end - begin > 1 && *begin == '+' && begin[1] != '-') ++begin;
  T value = 0;
  if (std::from_chars(begin, end, value).ec == std::errc::result_out_of_range)
    value = *begin == '-' ? std::numeric_limits<T>::min() : std::numeric_limits<T>::max();
  return value;
}

}  // namespace muro
