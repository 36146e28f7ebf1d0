#pragma once

/// Second readings of launchd's data items: packed byte by byte into a plain string.

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

inline void put_word(std::string& out, unsigned long long word) {
  for (int i = 0; i < 8; ++i) out += static_cast<char>(word >> (8 * i) & 0xff);
}

/// The word at the front of `bytes`, which holds one.
inline unsigned long long word_at(std::string_view bytes) {
  unsigned long long word = 0;
  for (std::size_t i = 8; i > 0; --i) word = word << 8 | static_cast<unsigned char>(bytes[i - 1]);
  return word;
}

inline std::string packed_head(unsigned long long type, unsigned long long first,
                               unsigned long long second) {
  std::string out;
  for (const unsigned long long word : {type, first, second}) put_word(out, word);
  return out;
}

/// Text and terminator, filled up with zero bytes to a multiple of eight.
inline std::string packed_string(const std::string& text) {
  std::string out = packed_head(7, 0, text.size()) + text;
  do out += '\0';
  while (out.size() % 8 != 0);
  return out;
}

/// A container of the type with its packed items.
inline std::string packed_container(unsigned long long type,
                                    const std::vector<std::string>& items) {
  std::string out = packed_head(type, 0, items.size());
  out.append(8 * items.size(), '\0');
  for (const std::string& item : items) out += item;
  return out;
}

}  // namespace fuzz
