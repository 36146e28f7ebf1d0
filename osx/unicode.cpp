#include "osx/unicode.h"

#include "muro/core/exception.h"
#include "osx/unicode_runs.h"
#include "osx/unicode_sequence.h"
#include "osx/unicode_step.h"

namespace xstd {
namespace {

constexpr std::size_t kCodePointsPerBlock = 256;
constexpr std::size_t kBytesPerBlock = 1024;
constexpr unsigned int kReplacement = 0xFFFD;
constexpr unsigned int kLastCodePoint = 0x10FFFF;

bool is_scalar_value(unsigned int code_point) {
  return code_point < 0xD800 || (code_point > 0xDFFF && code_point <= kLastCodePoint);
}

// Writes the sequence of one value, or that of the replacement character, and returns its length;
// writes nothing and returns 0 where there is no room for it.
[[gnu::always_inline]] inline std::size_t encode(unsigned int value, unsigned char* target,
                                                 std::size_t room) {
  const auto byte = [](unsigned int bits) { return static_cast<unsigned char>(bits); };
  const auto six_bits = [&](int shift) { return byte(0x80 | (value >> shift & 0x3F)); };
  if (value < 0x80) {
    if (room < 1) return 0;
    target[0] = byte(value);
    return 1;
  }
  if (value < 0x800) {
    if (room < 2) return 0;
    target[0] = byte(0xC0 | value >> 6);
    target[1] = six_bits(0);
    return 2;
  }
  if (!is_scalar_value(value)) value = kReplacement;
  if (value < 0x10000) {
    if (room < 3) return 0;
    target[0] = byte(0xE0 | value >> 12);
    target[1] = six_bits(6);
    target[2] = six_bits(0);
    return 3;
  }
  if (room < 4) return 0;
  target[0] = byte(0xF0 | value >> 18);
  target[1] = six_bits(12);
  target[2] = six_bits(6);
  target[3] = six_bits(0);
  return 4;
}

template <class T>
std::size_t between(const T* first, const T* last) {
  return static_cast<std::size_t>(last - first);
}

// Whether four sequences of three (four) bytes stand at `source`, as far as the lead bytes tell.
inline bool leads_threes(const unsigned char* source) {
  return (source[0] & source[3] & source[6] & source[9] & 0xE0) == 0xE0;
}
inline bool leads_fours(const unsigned char* source) {
  return (source[0] & source[4] & source[8] & source[12] & 0xF0) == 0xF0;
}

// Converts some of the next characters in one go, where there are at least 16 bytes and room for 16
// code points; false where there is no such run.
[[gnu::always_inline]] inline bool decode_run(const unsigned char*& source, unsigned int*& target) {
  if (*source < 0x80) {
    std::size_t count = kRun;
    if (!widen_ascii(source, target)) {
      for (count = 1; source[count] < 0x80; ++count) {
      }
    }
    source += count;
    target += count;
    return true;
  }
  if (*source < 0xE0) return false;
  if (*source < 0xF0) {
    if (!leads_threes(source) || !decode_four_of_three_bytes(source, target)) return false;
    source += 12;
  } else {
    if (!leads_fours(source) || !decode_four_of_four_bytes(source, target)) return false;
    source += 16;
  }
  target += 4;
  return true;
}

// The same for the way back, of at least 16 code points and into room for 16 bytes.
[[gnu::always_inline]] inline bool encode_run(const unsigned int*& source, unsigned char*& target) {
  if (*source < 0x80) {
    std::size_t count = kRun;
    if (!narrow_ascii(source, target)) {
      for (count = 1; source[count] < 0x80; ++count) {
      }
    }
    source += count;
    target += count;
    return true;
  }
  // One that stands alone is not worth a try.
  if (*source < 0x800 || source[1] < 0x800) return false;
  const std::size_t each = *source < 0x10000 ? 3 : 4;
  if (!(each == 3 ? encode_four_in_three_bytes(source, target)
                  : encode_four_in_four_bytes(source, target))) {
    return false;
  }
  source += 4;
  target += 4 * each;
  return true;
}

// Inlined into the driver, as broken text goes back to it for each byte that it drops.
struct utf8_converter {
  [[gnu::always_inline]] step_result operator()(const unsigned char*& source,
                                                const unsigned char* source_end,
                                                unsigned int*& target,
                                                unsigned int* target_end) const {
    const unsigned char* const runs_end =
        source + (between(source, source_end) >= kRun ? between(source, source_end) - kRun + 1 : 0);
    unsigned int* const room_end =
        target + (between(target, target_end) >= kRun ? between(target, target_end) - kRun + 1 : 0);
    while (source < runs_end && target < room_end) {
      if (decode_run(source, target)) continue;
      const sequence next = read_sequence(source, kRun);
      if (next.length == sequence::kIllegal) return step_result::source_illegal;
      *target++ = next.code_point;
      source += next.length;
    }
    while (source != source_end) {
      const sequence next = read_sequence(source, between(source, source_end));
      if (next.length == sequence::kIllegal) return step_result::source_illegal;
      if (next.length == sequence::kTruncated) return step_result::source_exhausted;
      if (target == target_end) return step_result::target_exhausted;
      *target++ = next.code_point;
      source += next.length;
    }
    return step_result::ok;
  }
};

struct utf32_converter {
  [[gnu::always_inline]] step_result operator()(const unsigned int*& source,
                                                const unsigned int* source_end,
                                                unsigned char*& target,
                                                unsigned char* target_end) const {
    while (between(source, source_end) >= kRun && between(target, target_end) >= kRun) {
      if (!encode_run(source, target)) target += encode(*source++, target, kRun);
    }
    for (; source != source_end; ++source) {
      const std::size_t length = encode(*source, target, between(target, target_end));
      if (length == 0) return step_result::target_exhausted;
      target += length;
    }
    return step_result::ok;
  }
};

template <std::size_t BlockSize, class In, class Out, class Callback, class Step>
void drive(const In* source, const In* source_end, Callback callback, void* context, Step step) {
  Out block[BlockSize];
  Out* filled = block;
  for (;;) {
    const step_result result = step(source, source_end, filled, block + BlockSize);
    const bool known = result >= step_result::ok && result <= step_result::source_illegal;
    const bool stuck = (result == step_result::target_exhausted && filled == block) ||
                       (result == step_result::source_illegal && source == source_end);
    if (!known || stuck) throw muro::exception::function("convert");
    if (result == step_result::source_illegal) {
      ++source;
      continue;
    }
    if (filled != block) callback(context, block, static_cast<std::size_t>(filled - block));
    if (result != step_result::target_exhausted) return;
    filled = block;
  }
}

}  // namespace

void drive_utf8(const unsigned char* utf8, std::size_t length, utf32_callback callback,
                void* context, utf8_step step) {
  drive<kCodePointsPerBlock, unsigned char, unsigned int>(utf8, utf8 + length, callback, context,
                                                          step);
}

void drive_utf32(const unsigned int* utf32, std::size_t count, utf8_callback callback,
                 void* context, utf32_step step) {
  drive<kBytesPerBlock, unsigned int, unsigned char>(utf32, utf32 + count, callback, context, step);
}

void llvm_convert_utf8_to_native_utf32(const unsigned char* utf8, std::size_t length,
                                       utf32_callback callback, void* context) {
  drive<kCodePointsPerBlock, unsigned char, unsigned int>(utf8, utf8 + length, callback, context,
                                                          utf8_converter());
}

void llvm_convert_native_utf32_to_utf8(const unsigned int* utf32, std::size_t count,
                                       utf8_callback callback, void* context) {
  drive<kBytesPerBlock, unsigned int, unsigned char>(utf32, utf32 + count, callback, context,
                                                     utf32_converter());
}

}  // namespace xstd
