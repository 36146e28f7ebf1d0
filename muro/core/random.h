#pragma once

/// Random seeding and the runtime's Mersenne Twister.

#include <cstdint>

namespace muro {

/// Seeds `srand` and `srandom` for a thread, afresh for each of the two calls.
void init_random();

/// Makes the generator's lock and seeds its state (MT19937).
void init_rand();

}  // namespace muro
