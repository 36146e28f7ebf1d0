#pragma once

/// Runs of text converted in one go: the quick half of the UTF conversions and of XML escaping.
///
/// Each function takes what it can with SSE2, which every x86-64 processor has, and says how much
/// that was; "0" and "false" mean that the caller has to go on one character at a time. None looks
/// at more than 16 units of input, or writes more than eight characters or 16 bytes: the caller
/// promises that much. Well-formed is what table 3-7 of the Unicode Standard lists.

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace xstd {

constexpr std::size_t kRun = 16;
constexpr std::size_t kEight = 8;

namespace lanes {

inline __m128i load(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}
inline void store(void* to, __m128i value) {
  _mm_storeu_si128(static_cast<__m128i*>(to), value);
}
inline __m128i load_half(const void* from) {
  return _mm_loadl_epi64(static_cast<const __m128i*>(from));
}
inline __m128i every(unsigned int value) {
  return _mm_set1_epi32(static_cast<int>(value));
}
inline bool all(__m128i mask) {
  return _mm_movemask_epi8(mask) == 0xFFFF;
}
/// The bits of `value` under `mask`, moved towards the high end or the low end.
template <int Bits>
__m128i up(__m128i value, unsigned int mask) {
  return _mm_slli_epi32(_mm_and_si128(value, every(mask)), Bits);
}
template <int Bits>
__m128i down(__m128i value, unsigned int mask) {
  return _mm_srli_epi32(_mm_and_si128(value, every(mask)), Bits);
}

inline __m128i is_surrogate(__m128i code_points) {
  return _mm_cmpeq_epi32(_mm_and_si128(code_points, every(0xFFFFF800)), every(0xD800));
}
/// Signed: a value beyond 2^31 is below every bound.
inline __m128i is_within(__m128i values, int first, int last) {
  return _mm_and_si128(_mm_cmpgt_epi32(values, _mm_set1_epi32(first - 1)),
                       _mm_cmplt_epi32(values, _mm_set1_epi32(last + 1)));
}
inline __m128i is_three_byte_value(__m128i code_points) {
  return _mm_andnot_si128(is_surrogate(code_points), is_within(code_points, 0x800, 0xFFFF));
}
inline __m128i is_four_byte_value(__m128i code_points) {
  return is_within(code_points, 0x10000, 0x10FFFF);
}

/// Two words as the bytes that they are made of; the words of four bytes twice.
inline __m128i side_by_side(std::uint64_t first, std::uint64_t last) {
  return _mm_set_epi64x(static_cast<long long>(last), static_cast<long long>(first));
}
inline __m128i side_by_side(std::uint32_t first, std::uint32_t last) {
  return _mm_set1_epi64x(static_cast<long long>(first | std::uint64_t{last} << 32));
}

}  // namespace lanes

/// How many of the lower eight bytes are ASCII, from the first on.
///
/// Deliberate: found by branches, not computed. The processor goes on to what follows by its guess,
/// and does not wait for the bytes.
[[gnu::always_inline]] inline std::size_t count_ascii(__m128i bytes) {
  const int others = _mm_movemask_epi8(bytes) & 0xFF;
  if (others == 0) return 8;
  if ((others & 0x0F) == 0) {
    if ((others & 0x10) != 0) return 4;
    if ((others & 0x20) != 0) return 5;
    if ((others & 0x40) != 0) return 6;
    return 7;
  }
  if ((others & 0x01) != 0) return 0;
  if ((others & 0x02) != 0) return 1;
  if ((others & 0x04) != 0) return 2;
  return 3;
}

/// Writes the lower eight bytes as code points.
[[gnu::always_inline]] inline void widen(__m128i bytes, unsigned int* target) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i units = _mm_unpacklo_epi8(bytes, zero);
  lanes::store(target, _mm_unpacklo_epi16(units, zero));
  lanes::store(target + 4, _mm_unpackhi_epi16(units, zero));
}

/// Writes the eight bytes at `source` to `target` as code points, and returns how many of them, from
/// the first on, are ASCII; the others mean nothing.
[[gnu::always_inline]] inline std::size_t widen_ascii(const unsigned char* source,
                                                      unsigned int* target) {
  const __m128i bytes = lanes::load_half(source);
  widen(bytes, target);
  return count_ascii(bytes);
}

/// Reads 16 bytes; if the first 12 are four well-formed sequences of three bytes, writes their code
/// points.
inline bool decode_four_of_three_bytes(const unsigned char* source, unsigned int* target) {
  using namespace lanes;
  // Two sequences in each half, then one in each lane.
  const __m128i pairs = _mm_unpacklo_epi64(load_half(source), load_half(source + 6));
  const __m128i first = _mm_and_si128(pairs, _mm_set1_epi64x(0xFFFFFF));
  const __m128i second = _mm_and_si128(_mm_slli_epi64(pairs, 8), _mm_set1_epi64x(0xFFFFFF00000000));
  const __m128i units = _mm_or_si128(first, second);
  const __m128i marks = _mm_cmpeq_epi32(_mm_and_si128(units, every(0xC0C0F0)), every(0x8080E0));
  const __m128i values = _mm_or_si128(_mm_or_si128(up<12>(units, 0x0F), down<2>(units, 0x3F00)),
                                      down<16>(units, 0x3F0000));
  if (!all(_mm_and_si128(marks, is_three_byte_value(values)))) return false;
  store(target, values);
  return true;
}

/// Reads 16 bytes; if they are four well-formed sequences of four bytes, writes their code points.
inline bool decode_four_of_four_bytes(const unsigned char* source, unsigned int* target) {
  using namespace lanes;
  const __m128i units = load(source);
  const __m128i marks = _mm_cmpeq_epi32(_mm_and_si128(units, every(0xC0C0C0F8)), every(0x808080F0));
  const __m128i values =
      _mm_or_si128(_mm_or_si128(up<18>(units, 0x07), up<4>(units, 0x3F00)),
                   _mm_or_si128(down<10>(units, 0x3F0000), down<24>(units, 0x3F000000)));
  if (!all(_mm_and_si128(marks, is_four_byte_value(values)))) return false;
  store(target, values);
  return true;
}

/// Writes the eight code points at `source` to `target` as bytes, and returns how many of them, from
/// the first on, are ASCII; the others mean nothing.
[[gnu::always_inline]] inline std::size_t narrow_ascii(const unsigned int* source,
                                                       unsigned char* target) {
  const __m128i units = _mm_packs_epi32(lanes::load(source), lanes::load(source + 4));
  // Both ways of saturating keep ASCII. One gives the top bit to what is larger, the other to what
  // is negative as a signed number.
  const __m128i bytes = _mm_or_si128(_mm_packus_epi16(units, units), _mm_packs_epi16(units, units));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(target), bytes);
  return count_ascii(bytes);
}

/// If the four code points at `source` take three bytes each, writes these 12 bytes, and two more
/// that mean nothing.
inline bool encode_four_in_three_bytes(const unsigned int* source, unsigned char* target) {
  using namespace lanes;
  const __m128i values = load(source);
  if (!all(is_three_byte_value(values))) return false;
  const __m128i units = _mm_or_si128(_mm_or_si128(down<12>(values, 0xF000), up<2>(values, 0x0FC0)),
                                     _mm_or_si128(up<16>(values, 0x3F), every(0x8080E0)));
  const __m128i first = _mm_and_si128(units, _mm_set1_epi64x(0xFFFFFF));
  const __m128i second = _mm_srli_epi64(_mm_andnot_si128(_mm_set1_epi64x(0xFFFFFFFF), units), 8);
  const __m128i pairs = _mm_or_si128(first, second);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(target), pairs);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(target + 6), _mm_unpackhi_epi64(pairs, pairs));
  return true;
}

/// If the four code points at `source` take four bytes each, writes these 16 bytes.
inline bool encode_four_in_four_bytes(const unsigned int* source, unsigned char* target) {
  using namespace lanes;
  const __m128i values = load(source);
  if (!all(is_four_byte_value(values))) return false;
  const __m128i high = _mm_or_si128(down<18>(values, 0x1C0000), down<4>(values, 0x3F000));
  const __m128i low = _mm_or_si128(up<10>(values, 0x0FC0), up<24>(values, 0x3F));
  store(target, _mm_or_si128(_mm_or_si128(high, low), every(0x808080F0)));
  return true;
}

/// Whether each byte may be written as it is in XML: no control, DEL, "&", "<", ">", only ASCII, and
/// where `quote` is set no double quote.
template <bool quote>
bool is_plain_xml(__m128i bytes) {
  const auto is = [](__m128i some, char c) { return _mm_cmpeq_epi8(some, _mm_set1_epi8(c)); };
  // Signed: what is no ASCII is negative.
  const __m128i control = _mm_or_si128(_mm_cmplt_epi8(bytes, _mm_set1_epi8(' ')), is(bytes, 0x7F));
  // One bit apart: "<" and ">", and "&" and the double quote.
  const __m128i angle = is(_mm_or_si128(bytes, _mm_set1_epi8(0x02)), '>');
  const __m128i other = quote ? is(_mm_or_si128(bytes, _mm_set1_epi8(0x04)), '&') : is(bytes, '&');
  return _mm_movemask_epi8(_mm_or_si128(control, _mm_or_si128(angle, other))) == 0;
}

/// Copies the 16 bytes at `source` to `target`; false if there is one among them that may not be
/// written as it is.
template <bool quote>
bool copy_plain_xml(const unsigned char* source, char* target) {
  const __m128i bytes = lanes::load(source);
  lanes::store(target, bytes);
  return is_plain_xml<quote>(bytes);
}

/// The same for `size` bytes, at least as many as `Word` has and at most twice that: as the first
/// word and the last one, which may overlap.
template <bool quote, class Word>
bool copy_plain_xml_ends(const unsigned char* source, std::size_t size, char* target) {
  Word first, last;
  std::memcpy(&first, source, sizeof first);
  std::memcpy(&last, source + size - sizeof last, sizeof last);
  std::memcpy(target, &first, sizeof first);
  std::memcpy(target + size - sizeof last, &last, sizeof last);
  return is_plain_xml<quote>(lanes::side_by_side(first, last));
}

/// Whether the 16 bytes at `source` are ASCII.
inline bool is_ascii_run(const unsigned char* source) {
  return _mm_movemask_epi8(lanes::load(source)) == 0;
}

/// Copies less than 16 bytes; false if one may not be written as it is, or if there are too few of
/// them for it to be worth while.
template <bool quote>
bool copy_short_plain_xml(const unsigned char* source, std::size_t size, char* target) {
  if (size >= 8) return copy_plain_xml_ends<quote, std::uint64_t>(source, size, target);
  return size >= 4 && copy_plain_xml_ends<quote, std::uint32_t>(source, size, target);
}

}  // namespace xstd
