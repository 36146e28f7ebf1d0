#include "osx/unicode_broken.h"

#include <tmmintrin.h>

#include <array>
#include <bit>
#include <cstdint>

#include "osx/unicode_runs.h"

namespace xstd {
namespace {

/// For each choice of eight bytes, the places of those to keep, in order; the rest means nothing.
struct kept_bytes {
  std::array<std::uint8_t, 8> places;
};

constexpr std::array<kept_bytes, 0x100> choices() {
  std::array<kept_bytes, 0x100> all{};
  for (unsigned int choice = 0; choice < all.size(); ++choice) {
    std::size_t count = 0;
    for (std::uint8_t place = 0; place < 8; ++place) {
      if ((choice >> place & 1) != 0) all[choice].places[count++] = place;
    }
  }
  return all;
}
constexpr std::array<std::uint8_t, 0x100> counts() {
  std::array<std::uint8_t, 0x100> all{};
  for (unsigned int choice = 0; choice < all.size(); ++choice) {
    all[choice] = static_cast<std::uint8_t>(std::popcount(choice));
  }
  return all;
}

constexpr std::array<kept_bytes, 0x100> kChoices = choices();
constexpr std::array<std::uint8_t, 0x100> kCounts = counts();

/// One bit for each of kBrokenPlaces bytes: the highest bit of what `lanes_at` makes of them, 16 at a
/// time.
template <class Lanes>
[[gnu::always_inline]] inline std::uint64_t places(const unsigned char* source, Lanes lanes_at) {
  const auto bits = [&](std::size_t from) {
    return std::uint64_t{static_cast<std::uint16_t>(_mm_movemask_epi8(lanes_at(source + from)))};
  };
  return bits(0) | bits(16) << 16 | (bits(32) | bits(48) << 16) << 32;
}

/// Signed: of the bytes that are no ASCII, those below `bound`, and no other.
inline __m128i is_below(__m128i bytes, unsigned char bound) {
  return _mm_cmplt_epi8(bytes, _mm_set1_epi8(static_cast<char>(bound)));
}

/// Of the bytes that are no ASCII, those that begin a sequence as far as three bytes tell: a lead
/// byte, a second byte, a third one where the lead byte asks for it, and no surrogate.
inline __m128i may_begin(const unsigned char* source) {
  const __m128i first = lanes::load(source);
  const __m128i second = lanes::load(source + 1), third = lanes::load(source + 2);
  const __m128i no_lead = is_below(first, 0xC2);
  const __m128i continued = _mm_and_si128(
      is_below(second, 0xC0), _mm_or_si128(is_below(first, 0xE0), is_below(third, 0xC0)));
  const __m128i leads_surrogates = _mm_cmpeq_epi8(first, _mm_set1_epi8(static_cast<char>(0xED)));
  const __m128i surrogate = _mm_andnot_si128(is_below(second, 0xA0), leads_surrogates);
  return _mm_andnot_si128(_mm_or_si128(no_lead, surrogate), continued);
}

/// Writes those of the eight bytes at `source`, ASCII, whose bits are set in `choice`, and returns
/// the end of them; what else of eight units is written means nothing.
[[gnu::target("ssse3")]] inline unsigned int* write_kept(const unsigned char* source,
                                                         std::uint8_t choice,
                                                         unsigned int* target) {
  const __m128i order = lanes::load_half(&kChoices[choice]);
  widen(_mm_shuffle_epi8(lanes::load_half(source), order), target);
  return target + kCounts[choice];
}

}  // namespace

[[gnu::target("ssse3")]] utf8_place pass_broken(utf8_place from, const unsigned char* source_end,
                                                const unsigned int* target_end) {
  auto [source, target] = from;
  const unsigned char* const last = source_end - kBrokenReads;
  std::size_t passed = 0;
  std::uint64_t known_broken = 1;
  do {
    const std::uint64_t others = places(source, lanes::load);
    const std::uint64_t starts = others & places(source, may_begin) & ~known_broken;
    // All those below the first start; all where there is none.
    std::uint64_t kept = ~others & (starts - 1);
    passed = static_cast<std::size_t>(std::countr_zero(starts));
    for (std::size_t at = 0; at < passed; at += 16, kept >>= 16) {
      target = write_kept(source + at, static_cast<std::uint8_t>(kept), target);
      target = write_kept(source + at + 8, static_cast<std::uint8_t>(kept >> 8), target);
    }
    source += passed;
    known_broken = 0;
  } while (passed == kBrokenPlaces && source <= last && target < target_end);
  return {source, target};
}

}  // namespace xstd
