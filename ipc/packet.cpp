#include "ipc/packet.h"

#include "muro/core/exception.h"

namespace muro {

const char* const packet_parse_e = "error parsing packet";
const char* const packet_number_too_big_e = "number too big to be stored in native variable";

}  // namespace muro

namespace {

constexpr std::size_t kLargestCount = 8;
static_assert(sizeof(unsigned long) == kLargestCount, "a number field holds up to 8 bytes");

unsigned char byte_at(const std::string& packet, std::size_t index) {
  return static_cast<unsigned char>(packet[index]);
}

}  // namespace

void muro_packet<unsigned long>::pop(std::string& packet, unsigned long& value) {
  if (packet.empty()) throw muro::exception(muro::packet_parse_e);
  const std::size_t last = packet.size() - 1;
  const std::size_t count = byte_at(packet, last);
  // The order of the two checks tells which text a short packet with a count above 8 gets.
  if (packet.size() < count + 1) throw muro::exception(muro::packet_parse_e);
  if (count > kLargestCount) throw muro::exception(muro::packet_number_too_big_e);
  unsigned long result = 0;
  for (std::size_t i = 1; i <= count; ++i) result = (result << 8) + byte_at(packet, last - i);
  packet.erase(last - count);
  value = result;
}

void muro_packet<unsigned long>::push(std::string& packet, unsigned long value) {
  char count = 0;
  for (; value != 0; value >>= 8, ++count) packet.push_back(static_cast<char>(value & 0xff));
  packet.push_back(count);
}

void muro_packet<std::string>::pop(std::string& packet, std::string& value) {
  unsigned long length = 0;
  muro_packet<unsigned long>::pop(packet, length);
  if (packet.size() < length) throw muro::exception(muro::packet_parse_e);
  const std::size_t start = packet.size() - length;
  value = packet.substr(start);
  packet.erase(start);
}

void muro_packet<std::string>::push(std::string& packet, const std::string& value) {
  packet += value;
  muro_packet<unsigned long>::push(packet, value.size());
}
