#pragma once

/// One sequence of UTF-8, as table 3-7 of the Unicode Standard has it.

#include <cstddef>

namespace xstd {

/// A sequence at the front of a text.
struct sequence {
  int length;  // kIllegal, kTruncated, or the bytes that it takes
  unsigned int code_point;

  static constexpr int kIllegal = 0;     // none begins here
  static constexpr int kTruncated = -1;  // the text ends inside one that is well-formed so far
};

/// Reads the sequence at `source`, where at least one of `available` bytes is. The bounds of the
/// second byte alone keep out overlong forms, surrogates and values beyond the last one.
///
/// The first published version of the reference decides that the input is exhausted by the lead
/// byte's promise alone. A broken byte near the end would then take the good text after it along, so
/// the bytes that are there are looked at first: only what may still become a sequence is truncated.
[[gnu::always_inline]] inline sequence read_sequence(const unsigned char* source,
                                                     std::size_t available) {
  const auto bits = [source](int i) { return source[i] & 0x3Fu; };
  const auto continues = [source](int i) { return (source[i] & 0xC0) == 0x80; };
  const unsigned int lead = source[0];
  if (lead < 0x80) return {1, lead};
  if (lead < 0xC2 || lead > 0xF4) return {sequence::kIllegal, 0};
  if (available < 2) return {sequence::kTruncated, 0};
  if (lead < 0xE0) {
    if (!continues(1)) return {sequence::kIllegal, 0};
    return {2, (lead & 0x1F) << 6 | bits(1)};
  }
  const unsigned int low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned int high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (source[1] < low || source[1] > high) return {sequence::kIllegal, 0};
  if (available < 3) return {sequence::kTruncated, 0};
  if (!continues(2)) return {sequence::kIllegal, 0};
  if (lead < 0xF0) return {3, (lead & 0x0F) << 12 | bits(1) << 6 | bits(2)};
  if (available < 4) return {sequence::kTruncated, 0};
  if (!continues(3)) return {sequence::kIllegal, 0};
  return {4, (lead & 0x07) << 18 | bits(1) << 12 | bits(2) << 6 | bits(3)};
}

}  // namespace xstd
