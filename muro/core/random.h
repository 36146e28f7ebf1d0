#pragma once

/// Random seeding, and the runtime's generator: MT19937 (Matsumoto and Nishimura, 1998), the one
/// that the standard calls `std::mt19937`. Not for secrets.

#include <array>
#include <cstddef>
#include <cstdint>

namespace muro {

/// MT19937. Seeded with the same number it gives the same words as `std::mt19937`. One thread at a
/// time; a plain value may not be copied because its cursors point into itself.
class mersenne_twister {
 public:
  static constexpr std::size_t kWords = 624;
  static constexpr std::size_t kMiddle = 397;

  explicit mersenne_twister(std::uint32_t first_word) { seed(first_word); }
  mersenne_twister(const mersenne_twister&) = delete;
  mersenne_twister& operator=(const mersenne_twister&) = delete;

  /// state[0] is `first_word`; the others follow by the standard's recurrence. The cursors stand
  /// at words 0, 1 and 397.
  void seed(std::uint32_t first_word);

  /// The next 32 random bits.
  std::uint32_t next();

  /// Word `index` of the state, below 624.
  std::uint32_t word(std::size_t index) const;

 private:
  void advance(std::uint64_t*& cursor);

  std::array<std::uint64_t, kWords> state_;  // 32-bit values
  std::uint64_t* current_;
  std::uint64_t* following_;
  std::uint64_t* middle_;
};

/// Seeds `srand` and then `srandom`, each with time(2) + clock(3) + thread id + process id, taken
/// afresh for each of the two and modulo 2^32. Called for every thread that the runtime is told of.
void init_random();

/// Makes the lock of the process's generator, if there is none yet, and seeds the generator with a
/// number taken as above.
void init_rand();

/// The next word of the process's generator, from any thread; seeds it first if need be.
std::uint32_t random_word();

}  // namespace muro
