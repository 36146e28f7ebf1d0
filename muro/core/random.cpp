#include "muro/core/random.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "muro/core/random_internal.h"
#include "muro/sys/thread.h"

namespace muro {

namespace {

constexpr std::uint64_t kUpperBit = 0x80000000;
constexpr std::uint64_t kLowerBits = 0x7fffffff;
constexpr std::uint64_t kTwist = 0x9908b0df;

/// A thread id is a number on one system and a pointer on another.
std::uint64_t thread_id() {
  const pthread_t id = get_current_thread_id();
  std::uint64_t number = 0;
  static_assert(sizeof id <= sizeof number);
  std::memcpy(&number, &id, sizeof id);
  return number;
}

rec_mutex& generator_mutex() {
  static rec_mutex* const mutex = new rec_mutex;
  return *mutex;
}

void seed_generator_locked() {
  const std::uint32_t seed = detail::make_seed();
  if (detail::g_generator == nullptr) {
    detail::g_generator = new mersenne_twister(seed);
  } else {
    detail::g_generator->seed(seed);
  }
}

}  // namespace

namespace detail {

constinit seed_calls g_seed_calls{::time, ::clock, thread_id, ::getpid, ::srand, ::srandom};
constinit mersenne_twister* g_generator = nullptr;

std::uint32_t make_seed() {
  const auto seconds = static_cast<std::uint32_t>(g_seed_calls.time(nullptr));
  const auto ticks = static_cast<std::uint32_t>(g_seed_calls.clock());
  const auto thread = static_cast<std::uint32_t>(g_seed_calls.thread_id());
  const auto process = static_cast<std::uint32_t>(g_seed_calls.getpid());
  return seconds + ticks + thread + process;
}

}  // namespace detail

void mersenne_twister::seed(std::uint32_t first_word) {
  std::uint32_t previous = first_word;
  state_[0] = previous;
  for (std::uint32_t i = 1; i < kWords; ++i) {
    previous = 1812433253U * (previous ^ (previous >> 30)) + i;
    state_[i] = previous;
  }
  current_ = &state_[0];
  following_ = &state_[1];
  middle_ = &state_[kMiddle];
}

std::uint32_t mersenne_twister::next() {
  const std::uint64_t joined = (*current_ & kUpperBit) | (*following_ & kLowerBits);
  *current_ = *middle_ ^ (joined >> 1) ^ ((joined & 1) != 0 ? kTwist : 0);
  std::uint64_t word = *current_;
  advance(current_);
  advance(following_);
  advance(middle_);
  word ^= word >> 11;
  word ^= (word << 7) & 0x9d2c5680;
  word ^= (word << 15) & 0xefc60000;
  word ^= word >> 18;
  return static_cast<std::uint32_t>(word);
}

std::uint32_t mersenne_twister::word(std::size_t index) const {
  return static_cast<std::uint32_t>(state_.at(index));
}

void mersenne_twister::advance(std::uint64_t*& cursor) {
  if (++cursor == state_.data() + state_.size()) cursor = state_.data();
}

void init_random() {
  detail::g_seed_calls.srand(detail::make_seed());
  detail::g_seed_calls.srandom(detail::make_seed());
}

void init_rand() {
  const rec_lock lock(generator_mutex());
  seed_generator_locked();
}

std::uint32_t random_word() {
  const rec_lock lock(generator_mutex());
  if (detail::g_generator == nullptr) seed_generator_locked();
  return detail::g_generator->next();
}

}  // namespace muro
