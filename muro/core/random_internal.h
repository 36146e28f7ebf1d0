#pragma once

/// The inner side of muro/core/random.h, for random.cpp and its tests alone.

#include <sys/types.h>
#include <time.h>

#include <cstdint>

#include "muro/core/random.h"

namespace muro::detail {

/// Where seeds come from and where they go. Tests put numbers of their own here, before threads
/// start, and so know the seed.
struct seed_calls {
  time_t (*time)(time_t*);
  clock_t (*clock)();
  std::uint64_t (*thread_id)();
  pid_t (*getpid)();
  void (*srand)(unsigned);
  void (*srandom)(unsigned);
};
extern seed_calls g_seed_calls;

/// (32-bit sum of time and clock) + thread id + process id, modulo 2^32.
std::uint32_t make_seed();

/// The process's generator, null before `init_rand`; guarded by its lock.
extern mersenne_twister* g_generator;

}  // namespace muro::detail
