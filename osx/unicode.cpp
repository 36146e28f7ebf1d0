#include "osx/unicode.h"

#include "muro/core/exception.h"
#include "osx/unicode_step.h"

namespace xstd {
namespace {

constexpr std::size_t kCodePointsPerBlock = 256;
constexpr std::size_t kBytesPerBlock = 1024;
constexpr unsigned int kReplacement = 0xFFFD;
constexpr unsigned int kLastCodePoint = 0x10FFFF;

// What a lead byte promises: the length of its sequence (0: it leads none) and the bounds of the
// second byte, which alone keep out overlong forms, surrogates and values beyond the last one.
struct promise {
  int length;
  unsigned char second_low;
  unsigned char second_high;
};

promise promise_of(unsigned char lead) {
  if (lead < 0x80) return {1, 0, 0};
  if (lead < 0xC2) return {0, 0, 0};
  if (lead < 0xE0) return {2, 0x80, 0xBF};
  if (lead == 0xE0) return {3, 0xA0, 0xBF};
  if (lead == 0xED) return {3, 0x80, 0x9F};
  if (lead < 0xF0) return {3, 0x80, 0xBF};
  if (lead == 0xF0) return {4, 0x90, 0xBF};
  if (lead < 0xF4) return {4, 0x80, 0xBF};
  if (lead == 0xF4) return {4, 0x80, 0x8F};
  return {0, 0, 0};
}

// The first published version of the reference decides that the input is exhausted by the lead
// byte's promise alone. A broken byte near the end would then take the good text after it along, so
// the bytes that are there are looked at first: only what may still become a sequence is truncated.
step_result check_sequence(const unsigned char* source, const unsigned char* source_end,
                           const promise& p) {
  if (p.length == 0) return step_result::source_illegal;
  for (int i = 1; i < p.length; ++i) {
    if (source + i == source_end) return step_result::source_exhausted;
    const unsigned char low = i == 1 ? p.second_low : 0x80;
    const unsigned char high = i == 1 ? p.second_high : 0xBF;
    if (source[i] < low || source[i] > high) return step_result::source_illegal;
  }
  return step_result::ok;
}

unsigned int decode(const unsigned char* source, int length) {
  if (length == 1) return source[0];
  unsigned int code_point = source[0] & (0x7Fu >> length);
  for (int i = 1; i < length; ++i) code_point = code_point << 6 | (source[i] & 0x3Fu);
  return code_point;
}

int encoded_length(unsigned int code_point) {
  if (code_point < 0x80) return 1;
  if (code_point < 0x800) return 2;
  return code_point < 0x10000 ? 3 : 4;
}

void encode(unsigned int code_point, int length, unsigned char* target) {
  static constexpr unsigned char kLeadMark[] = {0, 0, 0xC0, 0xE0, 0xF0};
  for (int i = length - 1; i > 0; --i) {
    target[i] = static_cast<unsigned char>(0x80 | (code_point & 0x3F));
    code_point >>= 6;
  }
  target[0] = static_cast<unsigned char>(kLeadMark[length] | code_point);
}

bool is_scalar_value(unsigned int code_point) {
  return code_point < 0xD800 || (code_point > 0xDFFF && code_point <= kLastCodePoint);
}

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

step_result convert_utf8_block(const unsigned char*& source, const unsigned char* source_end,
                               unsigned int*& target, unsigned int* target_end) {
  while (source != source_end) {
    const promise p = promise_of(*source);
    const step_result checked = check_sequence(source, source_end, p);
    if (checked != step_result::ok) return checked;
    if (target == target_end) return step_result::target_exhausted;
    *target++ = decode(source, p.length);
    source += p.length;
  }
  return step_result::ok;
}

step_result convert_utf32_block(const unsigned int*& source, const unsigned int* source_end,
                                unsigned char*& target, unsigned char* target_end) {
  while (source != source_end) {
    const unsigned int code_point = is_scalar_value(*source) ? *source : kReplacement;
    const int length = encoded_length(code_point);
    if (target_end - target < length) return step_result::target_exhausted;
    encode(code_point, length, target);
    target += length;
    ++source;
  }
  return step_result::ok;
}

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
  drive_utf8(utf8, length, callback, context, convert_utf8_block);
}

void llvm_convert_native_utf32_to_utf8(const unsigned int* utf32, std::size_t count,
                                       utf8_callback callback, void* context) {
  drive_utf32(utf32, count, callback, context, convert_utf32_block);
}

}  // namespace xstd
