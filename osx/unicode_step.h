#pragma once

/// The two parts of a conversion: a step, which converts as much as fits into one block and says
/// why it stopped, and the driver, which repairs the input and hands the blocks on. They are apart
/// so that the driver can be shown every result that a step may give.

#include <cstddef>

#include "osx/unicode.h"

namespace xstd {

/// Why a step stopped. The names are those of the reference conversion's result codes.
enum class step_result {
  ok,                // the whole input is converted
  source_exhausted,  // the input ends inside a sequence that is well-formed so far
  target_exhausted,  // the block is full
  source_illegal,    // `source` stands on a byte that starts no well-formed sequence
};

/// So many units more than `target_end` tells of can be written, and a step may leave `target` among
/// them: what a block has too much begins the next. A quick step that has room for one unit left may
/// write seven of ASCII and 64 of broken text.
constexpr std::size_t kOverrun = 7 + 64 - 1;

/// Converts from `source` up to `source_end` into the room from `target` up to `target_end`, and
/// leaves both cursors behind the last sequence converted. A step may also pass over an illegal
/// sequence's first unit itself.
using utf8_step = step_result (*)(const unsigned char*& source, const unsigned char* source_end,
                                  unsigned int*& target, unsigned int* target_end);
using utf32_step = step_result (*)(const unsigned int*& source, const unsigned int* source_end,
                                   unsigned char*& target, unsigned char* target_end);

/// Runs `step` over the input: an illegal sequence loses its first unit, a truncated one at the end
/// is dropped. Any other result than the four above, and a step that makes no progress, throws
/// `muro::exception` ":Error in 'convert'".
void drive_utf8(const unsigned char* utf8, std::size_t length, utf32_callback callback,
                void* context, utf8_step step);
void drive_utf32(const unsigned int* utf32, std::size_t count, utf8_callback callback,
                 void* context, utf32_step step);

}  // namespace xstd
