#include "platform/linux/utf8.h"

namespace platform {
namespace {

bool is_scalar(std::uint32_t code) {
  return code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

// How many bytes follow the lead byte; -1 for a byte that leads nothing.
int following(unsigned char lead) {
  if (lead < 0x80) return 0;
  if (lead >= 0xC2 && lead <= 0xDF) return 1;
  if (lead >= 0xE0 && lead <= 0xEF) return 2;
  if (lead >= 0xF0 && lead <= 0xF4) return 3;
  return -1;
}

char continuation(std::uint32_t code, int shift) {
  return static_cast<char>(0x80 | ((code >> shift) & 0x3F));
}

}  // namespace

bool is_utf8(const std::string& text) {
  static constexpr std::uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i++]);
    const int count = following(lead);
    if (count < 0 || text.size() - i < static_cast<std::size_t>(count)) return false;
    std::uint32_t code = count == 0 ? lead : lead & (0x3FU >> count);
    for (int k = 0; k < count; ++k) {
      const auto byte = static_cast<unsigned char>(text[i++]);
      if ((byte & 0xC0) != 0x80) return false;
      code = (code << 6) | (byte & 0x3FU);
    }
    if (code < kSmallest[count] || !is_scalar(code)) return false;
  }
  return true;
}

bool append_utf8(std::string& out, std::uint32_t code) {
  if (!is_scalar(code)) return false;
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += {static_cast<char>(0xC0 | (code >> 6)), continuation(code, 0)};
  } else if (code < 0x10000) {
    out += {static_cast<char>(0xE0 | (code >> 12)), continuation(code, 6), continuation(code, 0)};
  } else {
    out += {static_cast<char>(0xF0 | (code >> 18)), continuation(code, 12), continuation(code, 6),
            continuation(code, 0)};
  }
  return true;
}

}  // namespace platform
