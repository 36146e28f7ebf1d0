#pragma once

/// Message templates with numbered placeholders. "%1%" is the first argument, "%2%" the second;
/// "%%" is one "%". What is no complete placeholder stays text: "50% off", "a%1", "%12x".

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace muro {

/// A number kept as its bytes in host order; its text is the unsigned decimal value.
/// Deliberate: no byte swap is done, whatever `Little` says.
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

/// A parsed template and the arguments added so far. A plain value; one thread at a time.
class fmt {
 public:
  explicit fmt(const std::string& tmpl);

  /// Fills every occurrence of the next number, starting at 1, with `value`; a number that does
  /// not occur is ignored.
  void add(const std::string& value);

  /// Adds `value` converted by an output stream. `fill` 0 and `width` 0 mean plain conversion.
  /// A null `const char*` is added as "(null)"; a bool as "1" or "0".
  template <class T>
  void _add_arg(const T& value, char fill, unsigned char width);

  /// The filled text; a placeholder never added is empty.
  std::string str() const;

 private:
  std::vector<std::string> pieces_;
  std::map<int, std::vector<std::size_t>> slots_by_number_;
  unsigned next_arg_ = 0;
};

/// Writes every argument to one output stream, without separators, and returns the text.
template <class... Args>
std::string stringify(const Args&... args) {
  std::ostringstream out;
  (out << ... << args);
  return out.str();
}

/// Reads a number from the front of `s` as an input stream does; what is no number gives 0.
template <class T>
T destringify(const std::string& s);

}  // namespace muro
