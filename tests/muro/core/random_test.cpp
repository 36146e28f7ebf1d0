#include "muro/core/random.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "muro/core/random_internal.h"

namespace {

using muro::mersenne_twister;
using muro::detail::g_seed_calls;

/// Fixed sources of seeds and a record of what was seeded.
class random_test : public testing::Test {
 protected:
  random_test() {
    now = 1000;
    ticks = 20;
    thread = 3;
    process = 4;
    seeded.clear();
    g_seed_calls = {[](time_t*) { return now++; },
                    [] { return ticks; },
                    []() -> std::uint64_t { return thread; },
                    []() -> pid_t { return process; },
                    [](unsigned seed) {
                      seeded.push_back({"srand", seed});
                    },
                    [](unsigned seed) {
                      seeded.push_back({"srandom", seed});
                    }};
  }
  ~random_test() override { g_seed_calls = saved; }

  using seeding = std::pair<std::string, unsigned>;
  static inline time_t now;
  static inline clock_t ticks;
  static inline std::uint64_t thread;
  static inline pid_t process;
  static inline std::vector<seeding> seeded;
  const muro::detail::seed_calls saved = g_seed_calls;
};

/// The state words of a standard generator, as its stream operator gives them.
std::vector<std::uint32_t> words_of(const std::mt19937& generator) {
  std::stringstream text;
  text << generator;
  std::vector<std::uint32_t> words(mersenne_twister::kWords);
  for (std::uint32_t& word : words) text >> word;
  return words;
}

TEST(mersenne_twister, is_seeded_like_the_standard_one) {
  for (const std::uint32_t seed : {0U, 1U, 5489U, 0x80000000U, 0xffffffffU}) {
    const mersenne_twister ours(seed);
    const std::vector<std::uint32_t> theirs = words_of(std::mt19937(seed));
    for (std::size_t i = 0; i < theirs.size(); ++i) ASSERT_EQ(ours.word(i), theirs[i]) << i;
  }
}

TEST(mersenne_twister, gives_the_words_of_the_standard_one) {
  for (const std::uint32_t seed : {0U, 5489U, 20240229U}) {
    mersenne_twister ours(seed);
    std::mt19937 theirs(seed);
    for (int i = 0; i < 10000; ++i) ASSERT_EQ(ours.next(), theirs()) << i;
  }
}

TEST(mersenne_twister, ten_thousandth_word_of_the_default_seed_is_the_published_one) {
  mersenne_twister generator(5489);
  for (int i = 1; i < 10000; ++i) generator.next();
  EXPECT_EQ(generator.next(), 4123659995U);
}

TEST(mersenne_twister, seeding_again_starts_over) {
  mersenne_twister generator(7);
  const std::uint32_t first = generator.next();
  for (int i = 0; i < 1000; ++i) generator.next();
  generator.seed(7);
  EXPECT_EQ(generator.next(), first);
}

TEST_F(random_test, seed_is_the_sum_of_its_sources) {
  EXPECT_EQ(muro::detail::make_seed(), 1000U + 20 + 3 + 4);
}

TEST_F(random_test, seed_wraps_at_32_bits) {
  now = 0x1'ffff'ffff;
  ticks = 1;
  thread = 0x7fff'0000'0002;
  process = 3;
  EXPECT_EQ(muro::detail::make_seed(), 5U);
}

TEST_F(random_test, thread_seeding_takes_a_fresh_seed_for_each_generator) {
  muro::init_random();
  EXPECT_EQ(seeded, (std::vector<seeding>{{"srand", 1027}, {"srandom", 1028}}));
}

TEST_F(random_test, init_rand_seeds_the_generator) {
  muro::init_rand();
  const std::vector<std::uint32_t> expected = words_of(std::mt19937(1027));
  for (std::size_t i = 0; i < expected.size(); ++i) {
    ASSERT_EQ(muro::detail::g_generator->word(i), expected[i]) << i;
  }
  std::mt19937 theirs(1027);
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(muro::random_word(), theirs()) << i;
}

TEST_F(random_test, init_rand_again_seeds_the_same_generator_anew) {
  muro::init_rand();
  const mersenne_twister* const generator = muro::detail::g_generator;
  muro::random_word();
  muro::init_rand();
  EXPECT_EQ(muro::detail::g_generator, generator);
  EXPECT_EQ(muro::random_word(), std::mt19937(1028)());
}

TEST_F(random_test, generator_hands_out_each_word_once) {
  muro::init_rand();
  std::vector<std::uint32_t> words[4];
  std::vector<std::thread> threads;
  for (auto& mine : words) {
    threads.emplace_back([&mine] {
      for (int i = 0; i < 1000; ++i) mine.push_back(muro::random_word());
    });
  }
  for (std::thread& t : threads) t.join();
  std::multiset<std::uint32_t> ours, expected;
  for (const auto& mine : words) ours.insert(mine.begin(), mine.end());
  std::mt19937 theirs(1027);
  for (int i = 0; i < 4000; ++i) expected.insert(static_cast<std::uint32_t>(theirs()));
  EXPECT_EQ(ours, expected);
}

TEST(seed_calls, are_the_systems_by_default) {
  EXPECT_EQ(g_seed_calls.getpid(), ::getpid());
  EXPECT_EQ(g_seed_calls.srandom, &::srandom);
  EXPECT_EQ(g_seed_calls.srand, &::srand);
  EXPECT_EQ(g_seed_calls.time, &::time);
  EXPECT_EQ(g_seed_calls.clock, &::clock);
  std::uint64_t other = g_seed_calls.thread_id();
  EXPECT_EQ(other, g_seed_calls.thread_id());
  std::thread([&other] { other = g_seed_calls.thread_id(); }).join();
  EXPECT_NE(other, g_seed_calls.thread_id());
}

}  // namespace
