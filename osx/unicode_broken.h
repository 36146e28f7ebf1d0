#pragma once

/// Broken text: ASCII with bytes in it that begin no character.

#include <cstddef>

namespace xstd {

/// Where a conversion from UTF-8 stands.
struct utf8_place {
  const unsigned char* source;
  unsigned int* target;
};

/// So many places are converted together, and bytes looked at for it.
constexpr std::size_t kBrokenPlaces = 64;
constexpr std::size_t kBrokenReads = kBrokenPlaces + 2;

/// Converts from `from` on, where no well-formed sequence begins and kBrokenReads bytes are: writes
/// the ASCII and drops every other byte, up to the first that may begin a sequence, or until fewer
/// than kBrokenReads bytes are left or `target_end` is reached. Returns where it stopped, which is
/// behind `from`. May write kBrokenPlaces units from `from.target` on, and from `target_end - 1` on.
///
/// What may begin a sequence is decided by its first three bytes; the caller reads it, and finds out
/// whether it does.
///
/// It takes SSSE3, which every Mac with an x86-64 processor has.
utf8_place pass_broken(utf8_place from, const unsigned char* source_end,
                       const unsigned int* target_end);

}  // namespace xstd
