#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "netbuf/netbuf_imp.h"
#include "tests/netbuf/support.h"

using netbuf_imp::cchunk;
using netbuf_imp::chunk;
using netbuf_imp::end;
using netbuf_imp::memory_rights;
using netbuf_imp::nchunk;
using netbuf_imp::view;

namespace {

class chunks : public test::with_builtin {};

void count_call(void* counter) {
  ++*static_cast<int*>(counter);
}

}  // namespace

TEST_F(chunks, new_one_has_one_reference_and_is_writable) {
  nchunk made(10);
  EXPECT_EQ(made.references(), 1);
  EXPECT_TRUE(made.writable());
}

TEST_F(chunks, one_with_two_references_is_not_writable) {
  nchunk made(10);
  made.inc();
  EXPECT_FALSE(made.writable());
  EXPECT_FALSE(made.dec());
  EXPECT_TRUE(made.writable());
  EXPECT_TRUE(made.dec());
}

TEST_F(chunks, capacity_is_rounded_up_to_the_first_class_that_holds_the_request) {
  const std::vector<std::pair<int, int>> rows = {
      {1, 128},     {127, 128},   {128, 128},   {129, 512},    {512, 512},    {513, 2048},
      {2048, 2048}, {2049, 8192}, {8192, 8192}, {8193, 65536}, {65536, 65536}};
  for (const auto& [n, capacity] : rows) {
    nchunk made(n);
    EXPECT_EQ(made.capacity(), capacity) << n;
    EXPECT_NE(made.cache(), nullptr) << n;
  }
}

TEST_F(chunks, one_larger_than_every_class_has_its_exact_size_from_the_general_allocator) {
  for (int n : {65537, 100001, 3000000}) {
    nchunk made(n);
    EXPECT_EQ(made.capacity(), n);
    EXPECT_EQ(made.cache(), nullptr);
  }
}

TEST_F(chunks, classes_have_their_sizes_batches_and_overhead) {
  const netbuf_imp::size_class expected[] = {
      {128, 1000, 256}, {512, 500, 256}, {2048, 500, 64}, {8192, 150, 64}, {65536, 50, 32}};
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(netbuf_imp::size_classes[i].chunk_size, expected[i].chunk_size);
    EXPECT_EQ(netbuf_imp::size_classes[i].batches, expected[i].batches);
    netbuf_imp::memory_cache* cache = netbuf_imp::cache_of_class(i);
    EXPECT_EQ(cache->item_size(), static_cast<std::size_t>(expected[i].chunk_size) + 12);
    EXPECT_EQ(cache->items_per_batch(), expected[i].items_per_batch);
  }
}

TEST_F(chunks, memory_stands_behind_an_8_byte_link) {
  nchunk made(1);
  netbuf_imp::cache_mem* item = netbuf_imp::cache_mem::of(made.memory());
  EXPECT_EQ(made.memory() - reinterpret_cast<char*>(item), 8);
}

TEST_F(chunks, memory_goes_back_to_its_cache) {
  auto made = std::make_unique<nchunk>(60000);
  char* memory = made->memory();
  made.reset();
  // First in, first out: it comes again after all that waited before it.
  std::vector<std::unique_ptr<nchunk>> others;
  const std::size_t left = netbuf_imp::cache_of_class(4)->batches_left();
  do {
    others.push_back(std::make_unique<nchunk>(60000));
  } while (others.back()->memory() != memory && others.size() <= 50);
  EXPECT_EQ(others.back()->memory(), memory);
  EXPECT_EQ(netbuf_imp::cache_of_class(4)->batches_left(), left);
}

TEST_F(chunks, memory_comes_from_the_general_allocator_when_the_batches_are_used_up) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf_imp::install_builtin();
    std::vector<std::unique_ptr<nchunk>> held;
    for (int i = 0; i < 50 * 32; ++i) held.push_back(std::make_unique<nchunk>(65536));
    EXPECT_EQ(held.back()->cache(), netbuf_imp::cache_of_class(4));
    nchunk beyond(40000);
    EXPECT_EQ(beyond.cache(), nullptr);
    EXPECT_EQ(beyond.capacity(), 40000);
    held.pop_back();
    EXPECT_EQ(nchunk(40000).cache(), netbuf_imp::cache_of_class(4));
  });
}

TEST_F(chunks, supplied_memory_is_released_once_with_the_last_reference) {
  char memory[10];
  int released = 0;
  auto* made = new cchunk(memory, 10, memory_rights::writable, count_call, &released);
  {
    view a(made, 0, 10);
    { view b = a; }
    EXPECT_EQ(released, 0);
  }
  EXPECT_EQ(released, 1);
}

TEST_F(chunks, supplied_memory_without_release_function_is_let_alone) {
  char memory[] = "abc";
  { view a(new cchunk(memory, 3, memory_rights::writable, nullptr, nullptr), 0, 3); }
  EXPECT_STREQ(memory, "abc");
}

TEST_F(chunks, supplied_memory_is_writable_unless_read_only_or_shared) {
  char memory[10];
  cchunk writable(memory, 10, memory_rights::writable, nullptr, nullptr);
  cchunk read_only(memory, 10, memory_rights::read_only, nullptr, nullptr);
  EXPECT_TRUE(writable.writable());
  EXPECT_FALSE(read_only.writable());
  writable.inc();
  EXPECT_FALSE(writable.writable());
}

TEST_F(chunks, views_count_as_references) {
  view a(new nchunk(10), 2, 5);
  const chunk* shared = a.get_chunk();
  view b = a;
  EXPECT_EQ(shared->references(), 2);
  view c = std::move(b);
  EXPECT_EQ(shared->references(), 2);
  b = a;
  EXPECT_EQ(shared->references(), 3);
  b.dec();
  b.dec();
  c = std::move(b);
  EXPECT_EQ(shared->references(), 1);
}

TEST_F(chunks, a_view_grows_and_shrinks_at_either_end) {
  view a(new nchunk(128), 10, 20);
  EXPECT_EQ(a.room_before(), 10);
  EXPECT_EQ(a.room_behind(), 98);
  EXPECT_EQ(a.grow(4, end::front), a.get_chunk()->memory() + 6);
  EXPECT_EQ(a.grow(5, end::back), a.get_chunk()->memory() + 30);
  EXPECT_EQ(a.offset(), 6);
  EXPECT_EQ(a.length(), 29);
  a.shrink(1, end::front);
  a.shrink(2, end::back);
  EXPECT_EQ(a.offset(), 7);
  EXPECT_EQ(a.length(), 26);
}

TEST_F(chunks, a_view_of_a_shared_chunk_has_no_room) {
  view a(new nchunk(128), 10, 20);
  const view b = a;
  EXPECT_EQ(a.room_before() + a.room_behind(), 0);
}
