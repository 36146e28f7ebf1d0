#pragma once

/// Packets: byte strings built as a stack of typed fields.
///
/// A writer appends fields at the end; a reader takes them off the end again, so the field that
/// was appended last is read first. A packet is nothing but its fields: no header, no type tag,
/// no overall length (the frame around it carries that, see ipc/pipe_server.h).
///
/// A number field is its value, least significant byte first, in n bytes, then one byte holding n
/// (0 to 8; 0 bytes are the value 0). A string field is its bytes without a terminator, then a
/// number field with their count. The string "ab", then the number 0x1234:
///
///     61 62 | 02 01 | 34 12 02
///     a  b  | L   n | value  n
///
/// The functions work on the caller's string alone and may be called from any thread.

#include <string>

template <class T>
class muro_packet;

template <>
class muro_packet<unsigned long> {
 public:
  /// Takes a number off the end of `packet`. Throws `muro::exception` with `packet_parse_e` when
  /// the packet is empty or shorter than the field says, with `packet_number_too_big_e` when the
  /// field says more than 8 value bytes; `packet` and `value` are then unchanged.
  static void pop(std::string& packet, unsigned long& value);

  /// Appends `value` in as few bytes as hold it (0 in none).
  static void push(std::string& packet, unsigned long value);
};

template <>
class muro_packet<std::string> {
 public:
  /// Takes a string off the end of `packet`. Throws what the length's number field throws, and
  /// `packet_parse_e` when fewer bytes are left than it says. In that last case the length field
  /// is gone from `packet` already: work on a copy of the request and drop it on failure.
  static void pop(std::string& packet, std::string& value);

  /// Appends the bytes of `value` and their count.
  static void push(std::string& packet, const std::string& value);
};

namespace muro {

/// What the readers throw: "error parsing packet".
extern const char* const packet_parse_e;
/// What the readers throw: "number too big to be stored in native variable".
extern const char* const packet_number_too_big_e;

}  // namespace muro
