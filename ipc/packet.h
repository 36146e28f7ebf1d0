#pragma once

/// Packets: byte strings built as a stack of typed fields; the field appended last is read first.

#include <string>

template <class T>
class muro_packet;

template <>
class muro_packet<unsigned long> {
 public:
  static void pop(std::string& packet, unsigned long& value);
  static void push(std::string& packet, unsigned long value);
};

template <>
class muro_packet<std::string> {
 public:
  static void pop(std::string& packet, std::string& value);
  static void push(std::string& packet, const std::string& value);
};

namespace muro {
extern const char* const packet_parse_e;
extern const char* const packet_number_too_big_e;
}  // namespace muro
