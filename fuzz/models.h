#pragma once

/// Second readings of what the product reads, as plain as can be, for targets to compare with.

#include <optional>
#include <string>
#include <string_view>

namespace fuzz {

// Packet fields, from the end of a packet. They give the text of the error, or null, and cut the
// field off; after an error a text's length may be gone already.

inline constexpr const char* kParseError = "error parsing packet";
inline constexpr const char* kTooBig = "number too big to be stored in native variable";

/// A packet's last number; tells the error's text, or null, and cuts the field off `packet`.
inline const char* take_number(std::string_view& packet, unsigned long& value) {
  if (packet.empty()) return kParseError;
  const std::size_t count = static_cast<unsigned char>(packet.back());
  if (packet.size() - 1 < count) return kParseError;
  if (count > 8) return kTooBig;
  const std::string_view digits = packet.substr(packet.size() - 1 - count, count);
  value = 0;
  for (std::size_t i = 0; i < count; ++i)
    value |= static_cast<unsigned long>(static_cast<unsigned char>(digits[i])) << (8 * i);
  packet.remove_suffix(count + 1);
  return nullptr;
}

inline const char* take_text(std::string_view& packet, std::string_view& value) {
  unsigned long length = 0;
  if (const char* error = take_number(packet, length)) return error;
  if (length > packet.size()) return kParseError;
  value = packet.substr(packet.size() - length);
  packet.remove_suffix(length);
  return nullptr;
}

// Restore files.

inline constexpr std::string_view kSuffix = ".dat";

inline std::string_view behind_last(std::string_view text, char separator) {
  for (std::size_t i = text.size(); i > 0; --i)
    if (text[i - 1] == separator) return text.substr(i);
  return text;
}

/// The ID of a restore file: the rule, read one character at a time.
inline std::optional<std::string> id_of(std::string_view path) {
  const std::string_view name = behind_last(behind_last(path, '/'), '\\');
  if (name.size() < 4 || name.substr(name.size() - 4) != kSuffix) return std::nullopt;
  std::string id;
  for (std::size_t i = 0; i < name.size();) {
    const bool suffix_here = name.substr(i, 4) == kSuffix;
    if (!suffix_here) id += name[i];
    i += suffix_here ? 4 : 1;
  }
  return id;
}

/// Whether the ID is a name that the system takes for one entry of a folder.
inline bool names_session(const std::optional<std::string>& id) {
  if (!id || *id == "" || *id == "." || *id == "..") return false;
  for (const char c : *id)
    if (c == '/' || c == '\0') return false;
  return true;
}

}  // namespace fuzz
