// Packet fields. The input is two bytes whose bits tell the types of the fields to be taken, then
// a packet.
//
// For every packet and every order of types:
//   - a field is taken, or the exception thrown, exactly as a second reader of the format says;
//   - a field that is taken shortens the packet by its own bytes and no other changes; one that
//     fails leaves the packet as it was, but for a string's length field;
//   - what was taken, pushed again in the opposite order, is taken again unchanged, and leaves
//     nothing; a number is pushed in as few bytes as hold it.

#include <vector>

#include "fuzz/models.h"
#include "fuzz/target.h"
#include "ipc/packet.h"
#include "muro/core/exception.h"

namespace {

struct field {
  bool is_text = false;
  unsigned long number = 0;
  std::string text;
};

const char* take(std::string_view& packet, bool is_text, field& into) {
  into.is_text = is_text;
  if (!is_text) return fuzz::take_number(packet, into.number);
  std::string_view text;
  const char* error = fuzz::take_text(packet, text);
  into.text = text;
  return error;
}

/// The product's reader in the same form.
const char* pop(std::string& packet, field& into) {
  try {
    if (into.is_text)
      muro_packet<std::string>::pop(packet, into.text);
    else
      muro_packet<unsigned long>::pop(packet, into.number);
  } catch (const muro::exception& error) {
    return error.description() == fuzz::kTooBig ? fuzz::kTooBig
           : error.description() == fuzz::kParseError
               ? fuzz::kParseError
               : "an exception with another text than those documented";
  }
  return nullptr;
}

std::vector<field> check_taking(std::string packet, unsigned types) {
  std::vector<field> taken;
  std::string_view model;
  for (std::string before; taken.size() < 16; types >>= 1) {
    before = packet;
    model = before;
    field wanted;
    const char* wanted_error = take(model, (types & 1) != 0, wanted);
    field got;
    got.is_text = wanted.is_text;
    const char* error = pop(packet, got);
    fuzz::require_equal(error ? error : "", wanted_error ? wanted_error : "", "the outcome");
    fuzz::require_equal(packet, model, "what is left of the packet");
    if (error) return taken;
    fuzz::require(got.number == wanted.number, "the number");
    fuzz::require_equal(got.text, wanted.text, "the string");
    taken.push_back(got);
  }
  return taken;
}

bool is_shortest(const std::string& packet) {
  const auto count = static_cast<unsigned char>(packet.back());
  return count == 0 || packet[packet.size() - 2] != '\0';
}

void check_pushing(const std::vector<field>& fields) {
  std::string packet;
  for (std::size_t i = fields.size(); i-- > 0;) {
    if (fields[i].is_text)
      muro_packet<std::string>::push(packet, fields[i].text);
    else
      muro_packet<unsigned long>::push(packet, fields[i].number);
    fuzz::require(is_shortest(packet), "a number is pushed in as few bytes as hold it");
  }
  for (const field& wanted : fields) {
    field got;
    got.is_text = wanted.is_text;
    fuzz::require(pop(packet, got) == nullptr, "what was pushed can be taken");
    fuzz::require(got.number == wanted.number && got.text == wanted.text, "and is unchanged");
  }
  fuzz::require(packet.empty(), "nothing is left");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::input in(data, size);
  const unsigned types = in.number16();
  check_pushing(check_taking(std::string(in.rest()), types));
  return 0;
}
