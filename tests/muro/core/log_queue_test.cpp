#include "muro/core/log_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using muro::log_entry;
using muro::log_queue;
using muro::log_slice;
using muro::raw_log_line;
using muro::text_parts;
using testing::ElementsAre;

std::vector<std::string> texts_of(const log_slice& slice) {
  std::vector<std::string> texts;
  slice.for_each([&](const log_entry& entry) {
    texts.emplace_back(entry.raw != nullptr ? entry.raw->bytes() : entry.text);
  });
  return texts;
}

/// The number of entries in each slice; empties the queue.
std::vector<std::size_t> slices_of(log_queue& queue) {
  std::vector<std::size_t> counts;
  for (; !queue.empty(); queue.pop_front()) counts.push_back(texts_of(queue.front()).size());
  return counts;
}

TEST(log_queue, new_one_is_empty) {
  EXPECT_TRUE(log_queue().empty());
}

TEST(log_queue, gives_entries_in_their_order_with_their_parts_put_together) {
  log_queue queue;
  queue.push(text_parts{"[1] ", "name", "first"});
  queue.push("");
  queue.push(raw_log_line{"12:00 second\n", 13, 5, nullptr});
  queue.push(text_parts{"", std::string_view("\0`\n", 3), "third"});
  EXPECT_THAT(texts_of(queue.front()), ElementsAre("[1] name: first", "", "12:00 second\n",
                                                   std::string("\0`\n", 3) + ": third"));
}

TEST(log_queue, keeps_a_raw_line_as_it_is) {
  log_queue queue;
  static const char bytes[] = "12:00 x\n";
  const auto release = [](const char*) {};
  queue.push("odd");
  queue.push(raw_log_line{bytes, 8, 5, release});
  const raw_log_line* found = nullptr;
  queue.front().for_each([&](const log_entry& entry) { found = entry.raw; });
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->data, bytes);
  EXPECT_EQ(found->length, 8U);
  EXPECT_EQ(found->prefix_length, 5U);
  EXPECT_EQ(found->release, +release);
}

TEST(log_queue, slice_ends_with_the_line_that_fills_it) {
  log_queue queue;
  const std::string text(1000 - 22, 'x');
  const std::size_t fit = log_slice::kSize / 1000;
  for (std::size_t i = 0; i < 2 * fit; ++i)
    queue.push(raw_log_line{text.data(), text.size(), 0, nullptr});
  EXPECT_THAT(slices_of(queue), ElementsAre(fit + 1, fit - 1)) << "one more than fit in";
}

TEST(log_queue, short_lines_count_for_what_they_are_in_the_file) {
  log_queue queue;
  for (int i = 0; i < 20000; ++i) queue.push("");
  const std::size_t in_file = queue.front().length();
  EXPECT_EQ(in_file, texts_of(queue.front()).size() * 22);
  EXPECT_LE(in_file, log_slice::kSize + 22);
  EXPECT_GE(slices_of(queue).size(), 2U);
}

TEST(log_queue, line_larger_than_a_slice_has_one_of_its_own) {
  log_queue queue;
  const std::string large(3 * log_slice::kSize, 'l');
  queue.push(large);
  queue.push("a");
  queue.push(large + "!");
  EXPECT_EQ(texts_of(queue.front()).at(0), large);
  EXPECT_THAT(slices_of(queue), ElementsAre(1, 1, 1));
}

TEST(log_queue, line_larger_than_a_slice_leaves_no_memory_behind_and_no_empty_slice_in_front) {
  log_queue queue;
  queue.push("small");
  queue.pop_front();
  queue.push(std::string(2 * log_slice::kSize, 'l'));
  ASSERT_FALSE(queue.empty());
  EXPECT_EQ(texts_of(queue.front()).size(), 1U);
  queue.pop_front();
  EXPECT_TRUE(queue.empty());
  queue.push("next");
  EXPECT_THAT(texts_of(queue.front()), ElementsAre("next"));
}

TEST(log_queue, memory_of_a_slice_is_used_again) {
  log_queue queue;
  const auto place_of_next = [&queue] {
    queue.push("x");
    const char* place = nullptr;
    queue.front().for_each([&](const log_entry& entry) { place = entry.text.data(); });
    return place;
  };
  const char* const before = place_of_next();
  queue.pop_front();
  EXPECT_EQ(place_of_next(), before);
}

TEST(log_queue, swaps_all_it_has) {
  log_queue queue, other;
  queue.push("x");
  queue.swap(other);
  EXPECT_TRUE(queue.empty());
  EXPECT_THAT(texts_of(other.front()), ElementsAre("x"));
}

}  // namespace
