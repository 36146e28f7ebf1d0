#include "netbuf/buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "tests/netbuf/support.h"

using netbuf_imp::after_copy;
using netbuf_imp::buffer;
using netbuf_imp::end;
using netbuf_imp::memory_rights;
using netbuf_imp::view;

namespace {

constexpr std::int32_t everything = std::numeric_limits<std::int32_t>::max();
constexpr end both_ends[] = {end::front, end::back};

class buffers : public test::with_builtin {};

std::string text(const buffer& of) {
  std::string all;
  for (std::size_t i = 0; i < of.view_count(); ++i) {
    all.append(of.view_at(i).data(), static_cast<std::size_t>(of.view_at(i).length()));
  }
  EXPECT_EQ(static_cast<std::int32_t>(all.size()), of.size());
  return all;
}

std::vector<std::int32_t> lengths(const buffer& of) {
  std::vector<std::int32_t> all;
  for (std::size_t i = 0; i < of.view_count(); ++i) all.push_back(of.view_at(i).length());
  return all;
}

void put(buffer& into, const std::string& bytes, end where = end::back) {
  const auto n = static_cast<std::int32_t>(bytes.size());
  std::memcpy(into.allocate(n, where), bytes.data(), bytes.size());
}

/// Adds a view of `bytes` of its own.
void put_view(buffer& into, const std::string& bytes) {
  buffer one;
  put(one, bytes);
  into.take(one, end::back);
}

void fill(buffer& made, const std::vector<std::string>& views) {
  for (const std::string& bytes : views) put_view(made, bytes);
}

const view& end_view(const buffer& of, end where) {
  return of.view_at(where == end::front ? 0 : of.view_count() - 1);
}

/// Grows by `n` into a new chunk, whatever room there is; the new chunk's capacity.
std::int32_t capacity_of_growth(buffer& grown, std::int32_t n, end where = end::back) {
  const buffer sharer(grown, 0, everything);
  std::memset(grown.allocate(n, where), 'g', static_cast<std::size_t>(n));
  return end_view(grown, where).get_chunk()->capacity();
}

}  // namespace

// Chunks above 64 KiB are made in their exact size, so their capacity shows the size asked for.

TEST_F(buffers, new_chunk_takes_128_bytes_a_view_and_a_quarter_of_the_length_and_128_more) {
  buffer a;
  EXPECT_EQ(capacity_of_growth(a, 400000), 400000);
  EXPECT_EQ(capacity_of_growth(a, 1), 128 + 400001 / 4 + 128);
  EXPECT_EQ(capacity_of_growth(a, 1), 2 * 128 + 400002 / 4 + 128);
}

TEST_F(buffers, quarter_of_the_length_is_rounded_down) {
  buffer a;
  put(a, std::string(400002, 'x'));
  EXPECT_EQ(capacity_of_growth(a, 1), 128 + 100000 + 128);
}

TEST_F(buffers, first_chunk_of_a_buffer_is_small) {
  for (end where : both_ends) {
    buffer a;
    EXPECT_EQ(capacity_of_growth(a, 1, where), 128);
    buffer b;
    EXPECT_EQ(capacity_of_growth(b, 128, where), 512);  // max(128, 128 / 4 + 128) = 160
  }
}

TEST_F(buffers, new_chunk_is_capped_at_1_mib) {
  buffer a;
  put(a, std::string(8 << 20, 'x'));
  EXPECT_EQ(capacity_of_growth(a, 1), 1048576);
  EXPECT_EQ(capacity_of_growth(a, 1, end::front), 1048576);
}

TEST_F(buffers, growth_above_the_cap_has_its_own_size) {
  buffer a;
  put(a, std::string(8 << 20, 'x'));
  EXPECT_EQ(capacity_of_growth(a, 1048577), 1048577);
}

TEST_F(buffers, back_growth_takes_the_room_behind_the_last_view) {
  buffer a;
  put(a, "abc");
  const char* start = a.view_at(0).data();
  EXPECT_EQ(a.allocate(125, end::back), start + 3);
  EXPECT_EQ(lengths(a), std::vector<std::int32_t>{128});
}

TEST_F(buffers, back_growth_by_more_than_the_room_makes_a_chunk) {
  buffer a;
  put(a, "abc");
  const char* made = a.allocate(126, end::back);
  EXPECT_EQ(lengths(a), (std::vector<std::int32_t>{3, 126}));
  EXPECT_EQ(a.view_at(1).offset(), 0);
  EXPECT_EQ(a.view_at(1).data(), made);
}

TEST_F(buffers, front_growth_starts_at_the_end_of_a_new_chunk) {
  buffer a;
  const char* made = a.allocate(3, end::front);
  EXPECT_EQ(a.view_at(0).offset(), 125);
  EXPECT_EQ(a.view_at(0).data(), made);
}

TEST_F(buffers, front_growth_takes_the_room_before_the_first_view) {
  buffer a;
  put(a, "c", end::front);
  put(a, "b", end::front);
  EXPECT_EQ(a.allocate(126, end::front), a.view_at(0).get_chunk()->memory());
  EXPECT_EQ(lengths(a), std::vector<std::int32_t>{128});
  put(a, "a", end::front);
  EXPECT_EQ(a.view_count(), 2u);
}

TEST_F(buffers, front_growth_takes_the_room_that_an_erase_left) {
  buffer a;
  put(a, "abcdef");
  a.erase(4, end::front);
  put(a, "XY", end::front);
  EXPECT_EQ(text(a), "XYef");
  EXPECT_EQ(lengths(a), std::vector<std::int32_t>{4});
}

TEST_F(buffers, back_growth_takes_the_room_that_an_erase_left) {
  buffer a;
  put(a, "abcdef");
  a.erase(4, end::back);
  put(a, "XY");
  EXPECT_EQ(text(a), "abXY");
  EXPECT_EQ(lengths(a), std::vector<std::int32_t>{4});
}

TEST_F(buffers, growth_between_two_views_of_one_chunk_makes_a_chunk) {
  buffer a;
  put(a, "abcdef");
  buffer joined(a, 0, 2);
  joined.add(buffer(a, 4, 2), end::back);
  a.erase(everything, end::front);
  put(joined, "X");
  put(joined, "Y", end::front);
  EXPECT_EQ(text(joined), "YabefX");
  EXPECT_EQ(joined.view_count(), 4u);
}

TEST_F(buffers, growth_at_129_views_compacts_first) {
  for (end where : both_ends) {
    buffer a;
    for (int i = 0; i < 128; ++i) put_view(a, "abc");
    capacity_of_growth(a, 1, where);
    EXPECT_EQ(a.view_count(), 129u);
    a.allocate(1, where);
    EXPECT_LE(a.view_count(), 2u);
    EXPECT_EQ(a.size(), 128 * 3 + 2);
  }
}

TEST_F(buffers, growth_at_128_views_does_not_compact) {
  buffer a;
  for (int i = 0; i < 128; ++i) put_view(a, "abc");
  a.allocate(1, end::back);
  EXPECT_EQ(a.view_count(), 128u);
}

TEST_F(buffers, growth_by_nothing_does_not_compact) {
  buffer a;
  for (int i = 0; i < 129; ++i) put_view(a, "abc");
  EXPECT_EQ(a.allocate(0, end::back), nullptr);
  EXPECT_EQ(a.view_count(), 129u);
}

TEST_F(buffers, compacting_counts_for_the_size_of_the_next_chunk) {
  buffer a;
  put(a, std::string(400000, 'x'));
  for (int i = 0; i < 128; ++i) put_view(a, "abc");
  EXPECT_EQ(a.view_count(), 129u);
  const std::int32_t grown = 400000 + 128 * 3 + 1;
  const buffer sharer(a, 0, everything);
  a.allocate(1, end::back);
  EXPECT_EQ(a.view_at(1).get_chunk()->capacity(), 128 + grown / 4 + 128);
}

// Growth goes by what is known of the room at either end: any change of the views ends that.
TEST_F(buffers, growth_after_a_change_of_the_views_lands_behind_or_before_what_is_there) {
  using change = void (*)(buffer & changed, buffer & other);
  const change changes[] = {
      [](buffer& a, buffer& other) { a.add(other, end::back); },
      [](buffer& a, buffer& other) { a.add(other, end::front); },
      [](buffer& a, buffer& other) { other.add(a, end::back); },
      [](buffer& a, buffer&) { a.add(a, end::back); },
      [](buffer& a, buffer& other) { a.take(other, end::back); },
      [](buffer& a, buffer& other) { a.take(other, end::front); },
      [](buffer& a, buffer& other) { other.take(a, end::back); },
      [](buffer& a, buffer&) {
        static char memory[] = "memory";
        for (end where : both_ends)
          a.add_memory(memory, 6, where, memory_rights::read_only, nullptr, nullptr);
      },
      [](buffer& a, buffer&) {
        std::int32_t length;
        a.pull_up(everything, &length);
      },
      [](buffer& a, buffer&) { a.to_string(); },
      [](buffer& a, buffer&) { a.erase(4, end::front); },
      [](buffer& a, buffer&) { a.erase(5, end::back); },
      [](buffer& a, buffer&) {
        for (end where : both_ends) {
          std::int32_t length;
          std::memcpy(a.allocate_some(3, 3, where, &length), "new", 3);
        }
      },
  };
  for (end where : both_ends) {
    for (std::size_t i = 0; i < std::size(changes); ++i) {
      SCOPED_TRACE(i);
      buffer a;
      put(a, "left", end::front);
      put(a, "right");
      buffer other;
      put(other, "front", end::front);
      put(other, "back");
      changes[i](a, other);
      const std::string before = text(a);
      const std::string of_other = text(other);
      put(a, "XYZ", where);
      EXPECT_EQ(text(a), where == end::back ? before + "XYZ" : "XYZ" + before);
      EXPECT_EQ(text(other), of_other);
      const view& grown = end_view(a, where);
      EXPECT_EQ(grown.get_chunk()->references(), 1);
      EXPECT_GE(grown.offset(), 0);
      EXPECT_LE(grown.offset() + grown.length(), grown.get_chunk()->capacity());
    }
  }
}

// The room at each end is more than may be taken, or as much as may be taken at one of them.
TEST_F(buffers, growth_within_the_room_is_refused_beyond_the_limit) {
  constexpr std::int32_t chunk_size = 1 << 20;
  for (const std::int32_t left : {300, chunk_size + 200}) {
    buffer a;
    char unread;
    a.add_memory(&unread, everything - left, end::back, memory_rights::read_only, nullptr, nullptr);
    for (end where : both_ends) a.allocate(100, where);
    const std::int32_t rest = left - 200;
    a.allocate(rest, end::back);
    for (end where : both_ends) EXPECT_THROW(a.allocate(1, where), std::length_error);
    EXPECT_EQ(a.size(), everything);
  }
}

TEST_F(buffers, erase_removes_whole_views_and_shortens_the_next) {
  buffer a;
  fill(a, {"abc", "def", "ghi"});
  a.erase(4, end::front);
  EXPECT_EQ(text(a), "efghi");
  EXPECT_EQ(lengths(a), (std::vector<std::int32_t>{2, 3}));
  EXPECT_EQ(a.view_at(0).offset(), 1);
  a.erase(4, end::back);
  EXPECT_EQ(text(a), "e");
  EXPECT_EQ(lengths(a), std::vector<std::int32_t>{1});
}

TEST_F(buffers, erase_of_exactly_a_view_removes_it) {
  for (end where : both_ends) {
    buffer a;
    fill(a, {"abc", "def"});
    a.erase(3, where);
    EXPECT_EQ(lengths(a), std::vector<std::int32_t>{3});
    EXPECT_EQ(text(a), where == end::front ? "def" : "abc");
  }
}

TEST_F(buffers, pull_up_of_an_empty_one_gives_null_and_0) {
  buffer a;
  std::int32_t length = 7;
  EXPECT_EQ(a.pull_up(everything, &length), nullptr);
  EXPECT_EQ(length, 0);
}

TEST_F(buffers, pull_up_leaves_a_single_view_as_it_is) {
  for (std::int32_t limit : {-1, 0, 1, 3, 100, everything}) {
    buffer a;
    put(a, "abc");
    const char* before = a.view_at(0).data();
    std::int32_t length = 0;
    EXPECT_EQ(a.pull_up(limit, &length), before);
    EXPECT_EQ(length, 3);
  }
}

TEST_F(buffers, pull_up_of_content_within_the_limit_makes_one_chunk) {
  for (std::int32_t limit : {9, 10, everything}) {
    buffer a;
    fill(a, {"abc", "def", "ghi"});
    std::int32_t length = 0;
    EXPECT_EQ(std::string(a.pull_up(limit, &length), 9), "abcdefghi");
    EXPECT_EQ(length, 9);
    EXPECT_EQ(lengths(a), std::vector<std::int32_t>{9});
    EXPECT_EQ(a.view_at(0).offset(), 0);
    EXPECT_EQ(a.view_at(0).get_chunk()->references(), 1);
  }
}

TEST_F(buffers, pull_up_of_content_of_exactly_the_limit_takes_long_views_too) {
  buffer a;
  fill(a, {"a", "bcdefgh", "i"});
  std::int32_t length = 0;
  a.pull_up(9, &length);
  EXPECT_EQ(lengths(a), std::vector<std::int32_t>{9});
}

TEST_F(buffers, pull_up_makes_a_chunk_of_exactly_the_total) {
  buffer a;
  fill(a, {std::string(70000, 'a'), std::string(1234, 'b')});
  std::int32_t length = 0;
  a.pull_up(everything, &length);
  EXPECT_EQ(a.view_at(0).get_chunk()->capacity(), 71234);
}

TEST_F(buffers, pull_up_leaves_the_copies_as_they_were) {
  buffer a;
  fill(a, {"abc", "def"});
  const buffer b(a, 0, everything);
  std::int32_t length = 0;
  a.pull_up(everything, &length);
  EXPECT_EQ(lengths(b), (std::vector<std::int32_t>{3, 3}));
  EXPECT_EQ(text(b), "abcdef");
}

TEST_F(buffers, pull_up_returns_a_first_view_longer_than_half_the_limit) {
  buffer a;
  fill(a, {"abcd", "ef", "ghi"});
  const char* before = a.view_at(0).data();
  std::int32_t length = 0;
  EXPECT_EQ(a.pull_up(7, &length), before);  // 4 > 7 / 2
  EXPECT_EQ(length, 4);
  EXPECT_EQ(a.view_count(), 3u);
}

TEST_F(buffers, pull_up_with_a_limit_of_0_or_less_returns_the_first_view) {
  for (std::int32_t limit : {0, 1, -1, -everything - 1}) {
    buffer a;
    fill(a, {"a", "b"});
    std::int32_t length = 0;
    EXPECT_EQ(a.pull_up(limit, &length), a.view_at(0).data());
    EXPECT_EQ(length, 1);
    EXPECT_EQ(a.view_count(), 2u);
  }
}

TEST_F(buffers, pull_up_gathers_until_the_limit_is_reached) {
  buffer a;
  fill(a, {"abcd", "ef", "ghi", "jk", "l"});
  std::int32_t length = 0;
  const char* start = a.pull_up(8, &length);  // 4 + 2 + 3 is the first sum of 8 or more
  EXPECT_EQ(std::string(start, 9), "abcdefghi");
  EXPECT_EQ(length, 9);
  EXPECT_EQ(lengths(a), (std::vector<std::int32_t>{9, 2, 1}));
  EXPECT_EQ(text(a), "abcdefghijkl");
}

TEST_F(buffers, pull_up_stops_after_the_view_that_reaches_the_limit_exactly) {
  buffer a;
  fill(a, {"abcd", "efgh", "i"});
  std::int32_t length = 0;
  a.pull_up(8, &length);
  EXPECT_EQ(lengths(a), (std::vector<std::int32_t>{8, 1}));
}

TEST_F(buffers, pull_up_stops_before_a_view_longer_than_half_the_limit) {
  buffer a;
  fill(a, {"ab", "cd", "efghi", "j"});
  std::int32_t length = 0;
  const char* start = a.pull_up(8, &length);
  EXPECT_EQ(std::string(start, 4), "abcd");
  EXPECT_EQ(length, 4);
  EXPECT_EQ(lengths(a), (std::vector<std::int32_t>{4, 5, 1}));
}

TEST_F(buffers, pull_up_gathers_a_view_of_exactly_half_the_limit) {
  buffer a;
  fill(a, {"abc", "def", "g"});
  std::int32_t length = 0;
  a.pull_up(6, &length);
  EXPECT_EQ(length, 6);
}

TEST_F(buffers, pull_up_of_one_view_before_a_long_one_copies_it) {
  buffer a;
  fill(a, {"ab", "cdefghij"});
  const buffer sharer(a, 0, 2);
  std::int32_t length = 0;
  const char* start = a.pull_up(8, &length);
  EXPECT_EQ(length, 2);
  EXPECT_NE(start, sharer.view_at(0).data());
  EXPECT_EQ(text(a), "abcdefghij");
}

TEST_F(buffers, add_at_either_end_keeps_the_order) {
  buffer a;
  put(a, "M");
  buffer b;
  fill(b, {"ab", "cd", "ef"});
  a.add(b, end::front);
  a.add(b, end::back);
  EXPECT_EQ(text(a), "abcdefMabcdef");
  EXPECT_EQ(text(b), "abcdef");
}

TEST_F(buffers, add_of_itself_at_either_end_doubles) {
  for (end where : both_ends) {
    buffer a;
    fill(a, {"a", "b", "c", "d", "e"});
    a.add(a, where);
    EXPECT_EQ(text(a), "abcdeabcde");
  }
}

TEST_F(buffers, take_moves_all_views_without_sharing) {
  for (end where : both_ends) {
    buffer a;
    put(a, "M");
    buffer b;
    fill(b, {"ab", "cd", "ef"});
    a.take(b, where);
    EXPECT_EQ(text(a), where == end::front ? "abcdefM" : "Mabcdef");
    EXPECT_EQ(b.size(), 0);
    EXPECT_EQ(b.view_count(), 0u);
    EXPECT_EQ(a.view_at(1).get_chunk()->references(), 1);
  }
}

TEST_F(buffers, take_of_itself_changes_nothing) {
  buffer a;
  put(a, "abc");
  a.take(a, end::back);
  a.take(a, end::front);
  EXPECT_EQ(text(a), "abc");
}

TEST_F(buffers, take_beyond_the_limit_is_refused_and_changes_neither) {
  buffer a;
  put(a, std::string(1 << 20, 'x'));
  while (a.size() < 1 << 30) a.add(a, end::back);
  buffer b(a, 0, everything);
  EXPECT_THROW(a.take(b, end::back), std::length_error);
  EXPECT_EQ(a.size(), 1 << 30);
  EXPECT_EQ(b.size(), 1 << 30);
}

TEST_F(buffers, growth_into_supplied_memory_only_where_it_may_be_written) {
  for (memory_rights rights : {memory_rights::writable, memory_rights::read_only}) {
    char memory[] = "abcdef";
    buffer a;
    a.add_memory(memory, 6, end::back, rights, nullptr, nullptr);
    a.erase(2, end::back);
    a.erase(2, end::front);
    put(a, "X");
    put(a, "Y", end::front);
    EXPECT_EQ(text(a), "YcdX");
    EXPECT_STREQ(memory, rights == memory_rights::writable ? "aYcdXf" : "abcdef");
  }
}

TEST_F(buffers, supplied_memory_of_full_length_leaves_no_room) {
  char memory[] = "abc.";
  buffer a;
  a.add_memory(memory, 3, end::back, memory_rights::writable, nullptr, nullptr);
  put(a, "X");
  EXPECT_STREQ(memory, "abc.");
}
