#include "osx/unicode.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "muro/core/exception.h"
#include "osx/unicode_broken.h"
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

// Writes the sequence of one value, or that of the replacement character, and returns its length.
// Four bytes are written, of which those count; the processor puts the lowest first.
[[gnu::always_inline]] inline std::size_t encode(unsigned int value, unsigned char* target) {
  const auto six_bits = [&](int shift) { return 0x80 | (value >> shift & 0x3F); };
  const auto write = [&](std::uint32_t bytes, std::size_t length) {
    std::memcpy(target, &bytes, sizeof bytes);
    return length;
  };
  if (value < 0x80) return write(value, 1);
  if (value < 0x800) return write(0xC0 | value >> 6 | six_bits(0) << 8, 2);
  if (!is_scalar_value(value)) value = kReplacement;
  if (value < 0x10000) [[likely]] {
    return write(0xE0 | value >> 12 | six_bits(6) << 8 | six_bits(0) << 16, 3);
  }
  const unsigned int first_two = 0xF0 | value >> 18 | six_bits(12) << 8;
  return write(first_two | six_bits(6) << 16 | six_bits(0) << 24, 4);
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

// Converts four characters of three (four) bytes each, where the 16 bytes at `source` begin with
// such; false where they do not.
[[gnu::always_inline]] inline bool decode_run(const unsigned char*& source, unsigned int*& target) {
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

// The same for all the fours that follow each other, as far as there is room.
inline utf8_place decode_runs(utf8_place from, const unsigned char* source_end,
                              const unsigned int* target_end) {
  auto [source, target] = from;
  while (between(source, source_end) >= kRun && decode_run(source, target) && target < target_end) {
  }
  return {source, target};
}

// Broken bytes so close together are not passed over one at a time.
constexpr std::size_t kCloseTogether = 32;

// Converts the sequence at `from`, of which four bytes can be read, or a run of such; passes over
// what is broken there. `broken` is where that was last.
utf8_place decode_other(utf8_place from, const unsigned char* source_end,
                        const unsigned int* target_end, const unsigned char*& broken) {
  const utf8_place run_end = decode_runs(from, source_end, target_end);
  if (run_end.source != from.source) return run_end;
  const sequence next = read_sequence(from.source, 4);
  if (next.length != sequence::kIllegal) {
    *from.target = next.code_point;
    return {from.source + next.length, from.target + 1};
  }
  const bool alone = between(broken, from.source) > kCloseTogether;
  const utf8_place after = alone || between(from.source, source_end) < kBrokenReads
                               ? utf8_place{from.source + 1, from.target}
                               : pass_broken(from, source_end, target_end);
  broken = after.source;
  return after;
}

// Converts the ASCII that stands at `source`, up to eight characters of it, and what comes next.
[[gnu::always_inline]] inline void decode_quick(const unsigned char*& source,
                                                const unsigned char* source_end,
                                                unsigned int*& target,
                                                const unsigned int* target_end,
                                                const unsigned char*& broken) {
  const std::size_t ascii = widen_ascii(source, target);
  source += ascii;
  target += ascii;
  if (ascii == kEight) return;
  const unsigned int lead = source[0] - 0xC2u, trail = source[1] - 0x80u;
  if (lead < 0xE0 - 0xC2 && trail < 0xC0 - 0x80) [[likely]] {
    *target++ = 0x80 + (lead << 6) + trail;
    source += 2;
    return;
  }
  const utf8_place next = decode_other({source, target}, source_end, target_end, broken);
  source = next.source;
  target = next.target;
}

// Writes four values that take three (four) bytes each; false where there are no such.
[[gnu::always_inline]] inline bool encode_run(const unsigned int*& source, unsigned char*& target) {
  const bool threes = *source < 0x10000;
  if (!(threes ? encode_four_in_three_bytes(source, target)
               : encode_four_in_four_bytes(source, target))) {
    return false;
  }
  source += 4;
  target += threes ? 12 : 16;
  return true;
}

// Writes the ASCII that stands at `source`, up to eight characters of it, and what comes next.
[[gnu::always_inline]] inline void encode_quick(const unsigned int*& source,
                                                const unsigned int* quick, unsigned char*& target,
                                                const unsigned char* room_end) {
  const std::size_t ascii = narrow_ascii(source, target);
  source += ascii;
  target += ascii;
  if (ascii == kEight) return;
  const unsigned int value = *source;
  // One that stands alone is not worth a try.
  if (value >= 0x800 && source[1] >= 0x800) [[unlikely]] {
    if (encode_run(source, target)) return;
  }
  ++source;
  target += encode(value, target);
  if (value >= 0x800) return;
  // One of two bytes often has others after it.
  while (source < quick && target < room_end && *source - 0x80 < 0x800 - 0x80) {
    target += encode(*source++, target);
  }
}

// What the quick loops read from where they stand: up to seven ASCII characters, and a sequence or
// four values.
constexpr std::size_t kQuickReads = 7 + 4;
// What the way back writes before it looks at the room again: seven bytes, and 16 of which up to 16
// count.
constexpr std::size_t kRoom = 7 + 16;

// The end of the places from which there is that much to read.
template <class T>
const T* quick_end(const T* source, const T* source_end) {
  return source_end - std::min(between(source, source_end), kQuickReads - 1);
}

struct utf8_converter {
  [[gnu::always_inline]] step_result operator()(const unsigned char*& source,
                                                const unsigned char* source_end,
                                                unsigned int*& target,
                                                unsigned int* target_end) const {
    const unsigned char* const quick = quick_end(source, source_end);
    const unsigned char* broken = source;
    while (source < quick && target < target_end) {
      // A byte gives one code point at the most: the room need not be looked at until then.
      const unsigned char* const stop =
          source + std::min(between(source, quick), between(target, target_end));
      do {
        decode_quick(source, source_end, target, target_end, broken);
      } while (source < stop);
    }
    while (source != source_end) {
      if (target >= target_end) return step_result::target_exhausted;
      const sequence next = read_sequence(source, between(source, source_end));
      if (next.length == sequence::kIllegal) return step_result::source_illegal;
      if (next.length == sequence::kTruncated) return step_result::source_exhausted;
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
    const unsigned int* const quick = quick_end(source, source_end);
    unsigned char* const room_end = target_end - std::min(between(target, target_end), kRoom - 1);
    while (source < quick && target < room_end) {
      encode_quick(source, quick, target, room_end);
    }
    for (; source != source_end; ++source) {
      // What goes beyond the end is written again into the next block.
      const std::size_t length = encode(*source, target);
      if (length > between(target, target_end)) return step_result::target_exhausted;
      target += length;
    }
    return step_result::ok;
  }
};

template <std::size_t BlockSize, class In, class Out, class Callback, class Step>
void drive(const In* source, const In* source_end, Callback callback, void* context, Step step) {
  Out block[BlockSize + kOverrun];
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
    const std::size_t ready = std::min(between(block, filled), BlockSize);
    if (ready != 0) callback(context, block, ready);
    filled = std::copy(block + ready, filled, block);
    if (result != step_result::target_exhausted) break;
  }
  if (filled != block) callback(context, block, between(block, filled));
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
