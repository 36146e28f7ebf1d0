#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "netbuf/netbuf_imp.h"
#include "tests/netbuf/support.h"

using netbuf_imp::after_copy;
using netbuf_imp::end;
using netbuf_imp::iterator;
using netbuf_imp::memory_rights;
using test::content;
using test::from_text;

namespace {

const netbuf_imp::operations& table = netbuf_impl;
constexpr end both_ends[] = {end::front, end::back};

class netbuf_table : public test::with_builtin {};

void count_call(void* counter) {
  ++*static_cast<int*>(counter);
}

std::string stretch_at(const iterator& position) {
  std::int32_t length = 0;
  const char* start = table.iterator_current(&position, &length);
  return start == nullptr ? "end" : std::string(start, static_cast<std::size_t>(length));
}

}  // namespace

TEST_F(netbuf_table, has_29_entries_in_their_places) {
  void** entries = table;
  EXPECT_EQ(netbuf_imp::operation_count, 29);
  EXPECT_EQ(entries[0], reinterpret_cast<void*>(table.init_default));
  EXPECT_EQ(entries[1], reinterpret_cast<void*>(table.destroy));
  EXPECT_EQ(entries[2], reinterpret_cast<void*>(table.create));
  EXPECT_EQ(entries[3], reinterpret_cast<void*>(table.create_range));
  EXPECT_EQ(entries[4], reinterpret_cast<void*>(table.size));
  EXPECT_EQ(entries[5], reinterpret_cast<void*>(table.add));
  EXPECT_EQ(entries[6], reinterpret_cast<void*>(table.add_memory));
  EXPECT_EQ(entries[7], reinterpret_cast<void*>(table.allocate));
  EXPECT_EQ(entries[8], reinterpret_cast<void*>(table.allocate_some));
  EXPECT_EQ(entries[9], reinterpret_cast<void*>(table.pull_up));
  EXPECT_EQ(entries[10], reinterpret_cast<void*>(table.erase));
  EXPECT_EQ(entries[11], reinterpret_cast<void*>(table.copy_out));
  EXPECT_EQ(entries[12], reinterpret_cast<void*>(table.no_operation));
  EXPECT_EQ(entries[13], reinterpret_cast<void*>(table.block_free));
  EXPECT_EQ(entries[14], reinterpret_cast<void*>(table.block_allocate));
  EXPECT_EQ(entries[15], reinterpret_cast<void*>(table.iterator_begin));
  EXPECT_EQ(entries[16], reinterpret_cast<void*>(table.iterator_copy));
  EXPECT_EQ(entries[17], reinterpret_cast<void*>(table.iterator_valid));
  EXPECT_EQ(entries[18], reinterpret_cast<void*>(table.iterator_current));
  EXPECT_EQ(entries[19], reinterpret_cast<void*>(table.iterator_next));
  EXPECT_EQ(entries[20], reinterpret_cast<void*>(table.block_try_allocate));
  EXPECT_EQ(entries[21], reinterpret_cast<void*>(table.pull_up_all));
  EXPECT_EQ(entries[22], table.not_installed);
  EXPECT_EQ(entries[23], reinterpret_cast<void*>(table.find));
  EXPECT_EQ(entries[24], reinterpret_cast<void*>(table.compare));
  EXPECT_EQ(entries[25], reinterpret_cast<void*>(table.take_back));
  EXPECT_EQ(entries[26], reinterpret_cast<void*>(table.take_front));
  EXPECT_EQ(entries[27], reinterpret_cast<void*>(table.init_checking));
  EXPECT_EQ(entries[28], reinterpret_cast<void*>(table.init));
}

TEST_F(netbuf_table, misses_only_entry_22) {
  void** entries = table;
  for (int i = 0; i < netbuf_imp::operation_count; ++i) {
    EXPECT_EQ(entries[i] == nullptr, i == 22) << i;
  }
}

TEST_F(netbuf_table, objects_are_made_measured_and_ended) {
  void* a = table.create();
  EXPECT_EQ(table.size(a), 0);
  std::memcpy(table.allocate(a, 4, end::back), "abcd", 4);
  void* b = table.create_range(a, 1, 2);
  EXPECT_EQ(table.size(a), 4);
  EXPECT_EQ(table.size(b), 2);
  EXPECT_EQ(table.compare(b, "bc", 2), 0);
  table.destroy(a);
  EXPECT_EQ(table.compare(b, "bc", 2), 0);
  table.destroy(b);
}

TEST_F(netbuf_table, add_shares_at_either_end) {
  netbuf a = from_text("M");
  netbuf b = from_text("ab");
  table.add(a.object(), b.object(), end::front);
  table.add(a.object(), b.object(), end::back);
  EXPECT_EQ(content(a), "abMab");
  EXPECT_EQ(test::view_at(b, 0).get_chunk()->references(), 3);
}

TEST_F(netbuf_table, add_memory_takes_the_callers_bytes_over) {
  for (end where : both_ends) {
    char memory[] = "abc";
    int released = 0;
    {
      netbuf a = from_text("M");
      table.add_memory(a.object(), memory, 3, where, memory_rights::read_only, count_call,
                       &released);
      EXPECT_EQ(content(a), where == end::front ? "abcM" : "Mabc");
      const netbuf b(a, 1, 2);
      a = netbuf();
      EXPECT_EQ(released, 0);
    }
    EXPECT_EQ(released, 1);
  }
}

TEST_F(netbuf_table, add_memory_of_nothing_releases_it_at_once) {
  char memory[] = "abc";
  int released = 0;
  netbuf a = from_text("M");
  for (std::int32_t length : {0, -1}) {
    table.add_memory(a.object(), memory, length, end::back, memory_rights::writable, count_call,
                     &released);
    table.add_memory(a.object(), memory, length, end::back, memory_rights::writable, nullptr,
                     nullptr);
  }
  EXPECT_EQ(released, 2);
  EXPECT_EQ(content(a), "M");
}

TEST_F(netbuf_table, add_memory_that_is_refused_stays_the_callers) {
  netbuf a = from_text(std::string(1 << 20, 'x'));
  while (a.size() < 1 << 30) a.append(a);
  const auto long_length = netbuf::everything;
  char memory[] = "abc";
  int released = 0;
  EXPECT_THROW(table.add_memory(a.object(), memory, long_length, end::back, memory_rights::writable,
                                count_call, &released),
               std::length_error);
  EXPECT_EQ(released, 0);
  EXPECT_EQ(a.size(), 1 << 30);
}

TEST_F(netbuf_table, allocate_some_gives_the_room_that_is_there) {
  netbuf a = from_text("abc");
  std::int32_t length = 0;
  char* start = table.allocate_some(a.object(), 1, netbuf::everything, end::back, &length);
  EXPECT_EQ(start, test::view_at(a, 0).data() + 3);
  EXPECT_EQ(length, 125);
  EXPECT_EQ(a.size(), 128);
}

TEST_F(netbuf_table, allocate_some_gives_the_room_in_front) {
  netbuf a;
  *a.allocate_front(1) = 'x';
  std::int32_t length = 0;
  char* start = table.allocate_some(a.object(), 1, netbuf::everything, end::front, &length);
  EXPECT_EQ(length, 127);
  EXPECT_EQ(start, test::view_at(a, 0).data());
}

TEST_F(netbuf_table, allocate_some_gives_at_most_the_maximum) {
  netbuf a = from_text("abc");
  std::int32_t length = 0;
  table.allocate_some(a.object(), 1, 10, end::back, &length);
  EXPECT_EQ(length, 10);
  table.allocate_some(a.object(), 5, 1, end::back, &length);
  EXPECT_EQ(length, 5);
  EXPECT_EQ(a.size(), 18);
}

TEST_F(netbuf_table, allocate_some_makes_a_chunk_when_the_room_is_below_the_minimum) {
  for (end where : both_ends) {
    netbuf a = from_text("abc");
    a.allocate_back(124);
    a.erase_front(1);
    std::int32_t length = 0;
    char* start = table.allocate_some(a.object(), 2, netbuf::everything, where, &length);
    EXPECT_EQ(test::view_count(a), 2u);
    EXPECT_EQ(length, 512);
    EXPECT_EQ(start, test::view_at(a, where == end::front ? 0 : 1).data());
  }
}

TEST_F(netbuf_table, allocate_some_keeps_the_rest_of_a_new_chunk_for_later) {
  netbuf a;
  std::int32_t length = 0;
  std::memcpy(table.allocate_some(a.object(), 2, 3, end::front, &length), "abc", 3);
  EXPECT_EQ(length, 3);
  *a.allocate_front(1) = 'f';
  EXPECT_EQ(test::view_count(a), 1u);
  EXPECT_EQ(content(a), "fabc");
}

TEST_F(netbuf_table, allocate_some_of_nothing_gives_null_and_0) {
  netbuf a;
  for (std::int32_t minimum : {0, -1}) {
    std::int32_t length = 7;
    EXPECT_EQ(table.allocate_some(a.object(), minimum, 100, end::back, &length), nullptr);
    EXPECT_EQ(length, 0);
  }
  EXPECT_EQ(a.size(), 0);
}

TEST_F(netbuf_table, allocate_some_stays_within_the_limit_of_the_length) {
  netbuf a = from_text(std::string(32 << 20, 'x'));
  while (a.size() < 1 << 30) a.append(a);
  a.append(netbuf(a, 0, (1 << 30) - 11));
  ASSERT_LT(test::view_count(a), 129u);
  std::int32_t length = 0;
  table.allocate_some(a.object(), 2, netbuf::everything, end::back, &length);
  EXPECT_EQ(length, 10);
  EXPECT_EQ(a.size(), netbuf::everything);
  EXPECT_THROW(table.allocate_some(a.object(), 1, 1, end::back, &length), std::length_error);
}

TEST_F(netbuf_table, pull_up_all_forwards_to_pull_up_of_everything) {
  netbuf a = test::of_views({"ab", "cd", "ef"});
  std::int32_t length = 0;
  EXPECT_EQ(std::string(table.pull_up_all(a.object(), &length), 6), "abcdef");
  EXPECT_EQ(length, 6);
  EXPECT_EQ(test::view_count(a), 1u);
}

TEST_F(netbuf_table, copy_out_takes_from_either_end_and_keeps) {
  netbuf a = test::of_views({"ab", "cd", "ef"});
  char bytes[] = "...";
  EXPECT_EQ(table.copy_out(a.object(), bytes, 3, end::back, after_copy::keep), 3);
  EXPECT_STREQ(bytes, "def");
  EXPECT_EQ(table.copy_out(a.object(), bytes, 3, end::front, after_copy::keep), 3);
  EXPECT_STREQ(bytes, "abc");
  EXPECT_EQ(content(a), "abcdef");
}

TEST_F(netbuf_table, copy_out_removes_what_it_copied) {
  netbuf a = test::of_views({"ab", "cd", "ef"});
  char bytes[] = "...";
  EXPECT_EQ(table.copy_out(a.object(), bytes, 3, end::front, after_copy::remove), 3);
  EXPECT_STREQ(bytes, "abc");
  EXPECT_EQ(content(a), "def");
  EXPECT_EQ(table.copy_out(a.object(), bytes, 1, end::back, after_copy::remove), 1);
  EXPECT_STREQ(bytes, "fbc");
  EXPECT_EQ(content(a), "de");
}

TEST_F(netbuf_table, copy_out_of_more_than_the_size_gives_all_of_it) {
  for (end where : both_ends) {
    netbuf a = test::of_views({"ab", "cd"});
    char bytes[] = "......";
    EXPECT_EQ(table.copy_out(a.object(), bytes, netbuf::everything, where, after_copy::remove), 4);
    EXPECT_STREQ(bytes, "abcd..");
    EXPECT_EQ(a.size(), 0);
    EXPECT_EQ(table.copy_out(a.object(), bytes, 1, where, after_copy::remove), 0);
  }
}

TEST_F(netbuf_table, copy_out_of_nothing_removes_nothing) {
  netbuf a = from_text("abc");
  for (std::int32_t n : {0, -1}) {
    EXPECT_EQ(table.copy_out(a.object(), nullptr, n, end::back, after_copy::remove), 0);
  }
  EXPECT_EQ(content(a), "abc");
}

TEST_F(netbuf_table, no_operation_does_nothing) {
  table.no_operation();
}

TEST_F(netbuf_table, blocks_are_allocated_and_freed) {
  for (auto* allocate : {table.block_allocate, table.block_try_allocate}) {
    void* block = allocate(1000);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
    std::memset(block, 'b', 1000);
    table.block_free(block);
    EXPECT_EQ(allocate(0), nullptr);
    EXPECT_EQ(allocate(-1), nullptr);
  }
  table.block_free(nullptr);
}

TEST_F(netbuf_table, iterator_visits_every_stretch_in_order) {
  netbuf a = test::of_views({"ab", "cde", "f"});
  iterator position;
  table.iterator_begin(a.object(), &position);
  std::vector<std::string> seen;
  for (; table.iterator_valid(&position); table.iterator_next(&position)) {
    seen.push_back(stretch_at(position));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"ab", "cde", "f"}));
}

TEST_F(netbuf_table, iterator_at_the_end_stays_there) {
  netbuf a;
  iterator position;
  table.iterator_begin(a.object(), &position);
  EXPECT_FALSE(table.iterator_valid(&position));
  table.iterator_next(&position);
  std::int32_t length = 7;
  EXPECT_EQ(table.iterator_current(&position, &length), nullptr);
  EXPECT_EQ(length, 0);
}

TEST_F(netbuf_table, iterator_copies_advance_apart) {
  netbuf a = test::of_views({"ab", "cd"});
  iterator first;
  iterator second;
  table.iterator_begin(a.object(), &first);
  table.iterator_next(&first);
  table.iterator_copy(&first, &second);
  table.iterator_next(&first);
  EXPECT_EQ(stretch_at(first), "end");
  EXPECT_EQ(stretch_at(second), "cd");
}

TEST_F(netbuf_table, find_gives_the_index_of_the_first_match) {
  netbuf a = test::of_views({"abc", "dcb"});
  EXPECT_EQ(table.find(a.object(), 'a', netbuf::everything), 0);
  EXPECT_EQ(table.find(a.object(), 'c', netbuf::everything), 2);
  EXPECT_EQ(table.find(a.object(), 'd', netbuf::everything), 3);
  EXPECT_EQ(table.find(a.object(), 'x', netbuf::everything), -1);
}

TEST_F(netbuf_table, find_looks_at_the_first_n_bytes_only) {
  netbuf a = test::of_views({"abc", "def"});
  EXPECT_EQ(table.find(a.object(), 'e', 5), 4);
  EXPECT_EQ(table.find(a.object(), 'e', 4), -1);
  EXPECT_EQ(table.find(a.object(), 'a', 0), -1);
  EXPECT_EQ(table.find(a.object(), 'a', -1), -1);
  EXPECT_EQ(table.find(netbuf().object(), 'a', 1), -1);
}

TEST_F(netbuf_table, find_takes_bytes_of_any_value) {
  netbuf a = test::of_views({std::string("a\0\xff", 3)});
  EXPECT_EQ(table.find(a.object(), '\0', 3), 1);
  EXPECT_EQ(table.find(a.object(), '\xff', 3), 2);
}

TEST_F(netbuf_table, compare_orders_the_front_against_bytes) {
  netbuf a = test::of_views({"ab", "cd"});
  EXPECT_EQ(table.compare(a.object(), "abcd", 4), 0);
  EXPECT_EQ(table.compare(a.object(), "abcX", 3), 0);
  EXPECT_EQ(table.compare(a.object(), "abca", 4), 1);
  EXPECT_EQ(table.compare(a.object(), "abce", 4), -1);
  EXPECT_EQ(table.compare(a.object(), "b", 1), -1);
}

TEST_F(netbuf_table, compare_takes_bytes_as_unsigned) {
  netbuf a = from_text("\x80");
  EXPECT_EQ(table.compare(a.object(), "\x7f", 1), 1);
}

TEST_F(netbuf_table, compare_takes_a_shorter_buffer_for_less) {
  netbuf a = test::of_views({"ab", "cd"});
  EXPECT_EQ(table.compare(a.object(), "abcde", 5), -1);
  EXPECT_EQ(table.compare(a.object(), "abbzz", 5), 1);
  EXPECT_EQ(table.compare(netbuf().object(), "a", 1), -1);
}

TEST_F(netbuf_table, compare_with_nothing_is_equal) {
  netbuf a = from_text("ab");
  EXPECT_EQ(table.compare(a.object(), nullptr, 0), 0);
  EXPECT_EQ(table.compare(a.object(), nullptr, -1), 0);
}

TEST_F(netbuf_table, take_moves_the_whole_content_of_another_in) {
  netbuf a = from_text("M");
  netbuf back = test::of_views({"ab", "cd"});
  netbuf front = test::of_views({"ef", "gh"});
  table.take_back(a.object(), back.object());
  table.take_front(a.object(), front.object());
  EXPECT_EQ(content(a), "efghMabcd");
  EXPECT_EQ(back.size() + front.size(), 0);
  table.take_back(a.object(), a.object());
  table.take_front(a.object(), a.object());
  EXPECT_EQ(content(a), "efghMabcd");
}
