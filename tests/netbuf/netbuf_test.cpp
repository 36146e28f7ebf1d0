#include "netbuf/netbuf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "muro/sys/thread.h"
#include "tests/netbuf/support.h"

using test::content;
using test::from_text;

namespace {

class netbuf_handle : public test::with_builtin {};

/// A buffer of `megabytes` MiB that takes the memory of one.
netbuf huge(std::int32_t megabytes) {
  constexpr std::int32_t megabyte = 1 << 20;
  netbuf one;
  std::memset(one.allocate_back(megabyte), 'h', megabyte);
  netbuf all;
  for (std::int32_t i = 0; i < megabytes; ++i) all.append(one);
  return all;
}

template <class Change>
void expect_refused_as_too_long(Change change) {
  try {
    change();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "netbuf: too long");
  }
}

}  // namespace

TEST_F(netbuf_handle, is_one_pointer) {
  EXPECT_EQ(sizeof(netbuf), sizeof(void*));
}

TEST_F(netbuf_handle, new_one_is_empty) {
  netbuf empty;
  EXPECT_EQ(empty.size(), 0);
  EXPECT_EQ(empty.to_string(), "");
}

TEST_F(netbuf_handle, several_appends_are_concatenated) {
  netbuf joined;
  for (const char* word : {"one ", "", "two ", "three"}) joined.append(std::string(word));
  EXPECT_EQ(joined.size(), 13);
  EXPECT_EQ(joined.to_string(), "one two three");
}

TEST_F(netbuf_handle, bytes_of_any_value_pass) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  EXPECT_EQ(from_text(all).to_string(), all);
}

TEST_F(netbuf_handle, to_string_leaves_the_content) {
  netbuf joined = test::of_views({"ab", "cd"});
  EXPECT_EQ(joined.to_string(), "abcd");
  EXPECT_EQ(joined.to_string(), "abcd");
  EXPECT_EQ(joined.size(), 4);
}

TEST_F(netbuf_handle, to_string_makes_the_content_contiguous) {
  netbuf joined = test::of_views({"ab", "cd", "ef"});
  EXPECT_EQ(test::view_count(joined), 3u);
  joined.to_string();
  EXPECT_EQ(test::view_count(joined), 1u);
}

TEST_F(netbuf_handle, appending_a_buffer_shares_its_chunks) {
  netbuf a = from_text("abc");
  netbuf b;
  b.append(a);
  EXPECT_EQ(test::view_at(a, 0).data(), test::view_at(b, 0).data());
  EXPECT_EQ(test::view_at(a, 0).get_chunk()->references(), 2);
}

TEST_F(netbuf_handle, appending_a_dying_buffer_takes_its_chunks_over) {
  netbuf a = from_text("abc");
  netbuf b = test::of_views({"de", "f"});
  a.append(std::move(b));
  EXPECT_EQ(content(a), "abcdef");
  EXPECT_EQ(b.size(), 0);
  EXPECT_EQ(test::view_at(a, 2).get_chunk()->references(), 1);
  b.append(std::string("again"));
  EXPECT_EQ(content(b), "again");
}

TEST_F(netbuf_handle, appending_itself_as_a_dying_one_changes_nothing) {
  netbuf a = from_text("abc");
  netbuf& same = a;
  a.append(std::move(same));
  a.append(netbuf());
  EXPECT_EQ(content(a), "abc");
}

TEST_F(netbuf_handle, appending_an_empty_buffer_changes_nothing) {
  netbuf a = from_text("abc");
  a.append(netbuf());
  a.append(std::string());
  EXPECT_EQ(test::view_lengths(a), std::vector<std::int32_t>{3});
}

TEST_F(netbuf_handle, appending_itself_doubles_it) {
  netbuf a = test::of_views({"ab", "cde"});
  a.append(a);
  EXPECT_EQ(content(a), "abcdeabcde");
  EXPECT_EQ(a.size(), 10);
}

TEST_F(netbuf_handle, growth_of_a_buffer_appended_to_itself_leaves_its_first_half) {
  netbuf a = from_text("ab");
  a.append(a);
  a.append(std::string("X"));
  *a.allocate_front(1) = 'Y';
  EXPECT_EQ(content(a), "YababX");
}

TEST_F(netbuf_handle, copy_shares_and_is_independent) {
  netbuf a = from_text("abc");
  netbuf b = a;
  EXPECT_EQ(test::view_at(a, 0).data(), test::view_at(b, 0).data());
  b.erase_front(2);
  a.append(std::string("d"));
  EXPECT_EQ(content(a), "abcd");
  EXPECT_EQ(content(b), "c");
}

TEST_F(netbuf_handle, growth_at_the_back_of_either_copy_leaves_the_other) {
  netbuf a = from_text("abc");
  netbuf b = a;
  *b.allocate_back(1) = 'B';
  *a.allocate_back(1) = 'A';
  EXPECT_EQ(content(a), "abcA");
  EXPECT_EQ(content(b), "abcB");
}

TEST_F(netbuf_handle, growth_at_the_front_of_either_copy_leaves_the_other) {
  netbuf a;
  std::memcpy(a.allocate_front(3), "abc", 3);
  netbuf b = a;
  *b.allocate_front(1) = 'B';
  *a.allocate_front(1) = 'A';
  EXPECT_EQ(content(a), "Aabc");
  EXPECT_EQ(content(b), "Babc");
}

TEST_F(netbuf_handle, growth_after_a_cut_leaves_the_bytes_of_the_copy_behind_the_cut) {
  netbuf whole = from_text("abcdef");
  netbuf cut(whole, 0, 3);
  std::memcpy(cut.allocate_back(3), "XYZ", 3);
  netbuf tail(whole, 3, 3);
  std::memcpy(tail.allocate_front(3), "UVW", 3);
  EXPECT_EQ(content(whole), "abcdef");
  EXPECT_EQ(content(cut), "abcXYZ");
  EXPECT_EQ(content(tail), "UVWdef");
}

TEST_F(netbuf_handle, growth_after_an_erase_leaves_the_erased_bytes_of_the_copy) {
  netbuf a = from_text("abcdef");
  netbuf b = a;
  a.erase_back(3);
  std::memcpy(a.allocate_back(3), "XYZ", 3);
  EXPECT_EQ(content(b), "abcdef");
}

TEST_F(netbuf_handle, one_that_is_alone_again_grows_where_it_stands) {
  netbuf a = from_text("abc");
  { netbuf b = a; }
  a.append(std::string("d"));
  EXPECT_EQ(test::view_count(a), 1u);
  EXPECT_EQ(content(a), "abcd");
}

TEST_F(netbuf_handle, range_shares_a_part) {
  netbuf a = from_text("abcdef");
  netbuf part(a, 2, 3);
  EXPECT_EQ(content(part), "cde");
  EXPECT_EQ(test::view_at(part, 0).data(), test::view_at(a, 0).data() + 2);
}

TEST_F(netbuf_handle, range_over_view_borders) {
  netbuf a = test::of_views({"abc", "def", "ghi"});
  netbuf part(a, 2, 5);
  EXPECT_EQ(content(part), "cdefg");
  EXPECT_EQ(test::view_lengths(part), (std::vector<std::int32_t>{1, 3, 1}));
}

TEST_F(netbuf_handle, range_along_view_borders_takes_no_empty_view) {
  netbuf a = test::of_views({"abc", "def", "ghi"});
  netbuf part(a, 3, 3);
  EXPECT_EQ(test::view_lengths(part), std::vector<std::int32_t>{3});
}

TEST_F(netbuf_handle, range_of_everything) {
  netbuf a = test::of_views({"abc", "def"});
  EXPECT_EQ(content(netbuf(a, 0, netbuf::everything)), "abcdef");
  EXPECT_EQ(content(netbuf(a, 4, netbuf::everything)), "ef");
}

TEST_F(netbuf_handle, range_is_cut_to_what_is_there) {
  netbuf a = from_text("abc");
  EXPECT_EQ(content(netbuf(a, -5, 2)), "ab");
  EXPECT_EQ(content(netbuf(a, 1, 100)), "bc");
  for (std::int32_t offset : {3, 4, netbuf::everything}) EXPECT_EQ(netbuf(a, offset, 1).size(), 0);
  for (std::int32_t length : {0, -1, -netbuf::everything - 1}) {
    EXPECT_EQ(netbuf(a, 0, length).size(), 0);
  }
}

TEST_F(netbuf_handle, assignment_lets_the_old_content_go_and_shares_the_new) {
  netbuf old = from_text("old");
  netbuf a = old;
  const netbuf b = from_text("new");
  a = b;
  EXPECT_EQ(content(a), "new");
  EXPECT_EQ(test::view_at(old, 0).get_chunk()->references(), 1);
  EXPECT_EQ(test::view_at(a, 0).get_chunk()->references(), 2);
}

TEST_F(netbuf_handle, assignment_to_itself_keeps_the_content) {
  netbuf a = from_text("abc");
  netbuf& same = a;
  a = same;
  EXPECT_EQ(content(a), "abc");
  a = std::move(same);
  EXPECT_EQ(content(a), "abc");
}

TEST_F(netbuf_handle, assignment_of_its_own_range) {
  netbuf a = from_text("abcdef");
  a = netbuf(a, 2, 2);
  EXPECT_EQ(content(a), "cd");
}

TEST_F(netbuf_handle, end_releases_every_view) {
  netbuf a = test::of_views({"abc", "def"});
  { netbuf b = a; }
  EXPECT_EQ(test::view_at(a, 0).get_chunk()->references(), 1);
  EXPECT_EQ(test::view_at(a, 1).get_chunk()->references(), 1);
}

TEST_F(netbuf_handle, move_takes_the_content_without_sharing) {
  netbuf a = from_text("abc");
  netbuf b = std::move(a);
  EXPECT_EQ(content(b), "abc");
  EXPECT_EQ(test::view_at(b, 0).get_chunk()->references(), 1);
  EXPECT_TRUE(std::is_nothrow_move_constructible_v<netbuf>);
  EXPECT_TRUE(std::is_nothrow_move_assignable_v<netbuf>);
}

TEST_F(netbuf_handle, moved_from_one_is_an_empty_buffer_for_every_operation) {
  netbuf a = from_text("abc");
  const netbuf taken = std::move(a);
  char byte = 0;
  EXPECT_EQ(a.size(), 0);
  EXPECT_EQ(a.to_string(), "");
  EXPECT_EQ(a.copy_front(&byte, 1), 0);
  a.erase_front(1);
  a.erase_back(1);
  EXPECT_EQ(netbuf(a).size(), 0);
  EXPECT_EQ(netbuf(a, 1, 2).size(), 0);
  netbuf b = from_text("b");
  b.append(a);
  EXPECT_EQ(content(b), "b");
  b = a;
  EXPECT_EQ(b.size(), 0);
}

TEST_F(netbuf_handle, moved_from_one_takes_new_content) {
  netbuf a = from_text("abc");
  const netbuf taken = std::move(a);
  a.append(std::string("new"));
  EXPECT_EQ(content(a), "new");
  netbuf b = std::move(a);
  *a.allocate_front(1) = 'f';
  EXPECT_EQ(content(a), "f");
  b = std::move(a);
  a.append(b);
  EXPECT_EQ(content(a), "f");
}

TEST_F(netbuf_handle, lives_in_containers) {
  std::map<std::string, netbuf> named;
  named["b"].append(std::string("2"));
  named["a"] = from_text("1");
  std::vector<netbuf> list;
  for (const auto& [name, value] : named) {
    list.push_back(from_text(name));
    list.push_back(value);
  }
  netbuf all;
  for (const netbuf& item : list) all.append(item);
  EXPECT_EQ(all.to_string(), "a1b2");
}

TEST_F(netbuf_handle, front_growth_after_back_growth_stands_in_front) {
  netbuf a;
  std::memcpy(a.allocate_back(3), "def", 3);
  std::memcpy(a.allocate_front(3), "abc", 3);
  EXPECT_EQ(a.to_string(), "abcdef");
}

TEST_F(netbuf_handle, back_growth_after_front_growth_stands_behind) {
  netbuf a;
  std::memcpy(a.allocate_front(3), "abc", 3);
  std::memcpy(a.allocate_back(3), "def", 3);
  EXPECT_EQ(a.to_string(), "abcdef");
}

TEST_F(netbuf_handle, growth_by_nothing_gives_no_pointer) {
  netbuf a = from_text("abc");
  for (std::int32_t n : {0, -1, -netbuf::everything - 1}) {
    EXPECT_EQ(a.allocate_back(n), nullptr);
    EXPECT_EQ(a.allocate_front(n), nullptr);
  }
  EXPECT_EQ(content(a), "abc");
}

TEST_F(netbuf_handle, erase_drops_at_either_end) {
  netbuf a = from_text("abcdef");
  a.erase_front(1);
  a.erase_back(2);
  EXPECT_EQ(content(a), "bcd");
}

TEST_F(netbuf_handle, erase_of_the_size_or_more_empties) {
  for (std::int32_t n : {6, 7, netbuf::everything}) {
    netbuf front = test::of_views({"abc", "def"});
    netbuf back = front;
    front.erase_front(n);
    back.erase_back(n);
    EXPECT_EQ(front.size(), 0);
    EXPECT_EQ(back.to_string(), "");
    EXPECT_EQ(test::view_count(front) + test::view_count(back), 0u);
  }
}

TEST_F(netbuf_handle, erase_of_nothing_changes_nothing) {
  netbuf a = from_text("abc");
  netbuf empty;
  for (std::int32_t n : {0, -1, -netbuf::everything - 1}) {
    a.erase_front(n);
    a.erase_back(n);
    empty.erase_front(n);
  }
  empty.erase_back(1);
  EXPECT_EQ(content(a), "abc");
  EXPECT_EQ(empty.size(), 0);
}

TEST_F(netbuf_handle, an_emptied_one_takes_new_content) {
  netbuf a = from_text("abc");
  a.erase_front(3);
  a.append(std::string("new"));
  EXPECT_EQ(content(a), "new");
}

TEST_F(netbuf_handle, copy_front_copies_and_keeps) {
  netbuf a = test::of_views({"abc", "def"});
  char bytes[] = "......";
  EXPECT_EQ(a.copy_front(bytes, 4), 4);
  EXPECT_STREQ(bytes, "abcd..");
  EXPECT_EQ(content(a), "abcdef");
}

TEST_F(netbuf_handle, copy_front_of_more_than_the_size_gives_the_size) {
  netbuf a = test::of_views({"abc", "def"});
  char bytes[] = "........";
  EXPECT_EQ(a.copy_front(bytes, netbuf::everything), 6);
  EXPECT_STREQ(bytes, "abcdef..");
}

TEST_F(netbuf_handle, copy_front_of_nothing_gives_0) {
  netbuf a = from_text("abc");
  char byte = '.';
  EXPECT_EQ(a.copy_front(&byte, 0), 0);
  EXPECT_EQ(a.copy_front(&byte, -1), 0);
  EXPECT_EQ(netbuf().copy_front(&byte, 1), 0);
  EXPECT_EQ(byte, '.');
}

TEST_F(netbuf_handle, two_hundred_growths_into_new_chunks_leave_at_most_129_views) {
  netbuf a;
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    const netbuf sharer = a;
    *a.allocate_back(1) = static_cast<char>('a' + i % 26);
    expected.push_back(static_cast<char>('a' + i % 26));
    ASSERT_LE(test::view_count(a), 129u);
  }
  EXPECT_EQ(a.to_string(), expected);
}

TEST_F(netbuf_handle, copies_on_two_threads_grow_and_end_apart) {
  class grower : public muro::thread {
   public:
    grower(const netbuf& from, char byte) : muro::thread(false, "", 0), bytes_(from), byte_(byte) {}
    std::string text() const { return content(bytes_); }

   private:
    void run() override {
      for (int i = 0; i < 500; ++i) {
        const netbuf sharer = bytes_;
        *bytes_.allocate_back(1) = byte_;
        bytes_.erase_front(1);
      }
    }
    netbuf bytes_;
    char byte_;
  };
  if (muro::m_threads_mtx == nullptr) muro::init_thread();
  auto original = std::make_unique<netbuf>(from_text(std::string(500, 'o')));
  grower a(*original, 'a');
  grower b(*original, 'b');
  a.detach();
  b.detach();
  original.reset();
  a.synchronize();
  b.synchronize();
  EXPECT_EQ(a.text(), std::string(500, 'a'));
  EXPECT_EQ(b.text(), std::string(500, 'b'));
}

TEST_F(netbuf_handle, length_up_to_the_limit_is_taken) {
  netbuf a = huge(2047);
  a.append(netbuf(a, 0, netbuf::everything - a.size()));
  EXPECT_EQ(a.size(), netbuf::everything);
}

TEST_F(netbuf_handle, growth_beyond_the_limit_is_refused_before_anything_changes) {
  netbuf a = huge(2047);
  const std::size_t views = test::view_count(a);
  const netbuf megabyte(a, 0, 1 << 20);
  expect_refused_as_too_long([&] { a.append(megabyte); });
  expect_refused_as_too_long([&] { a.append(a); });
  expect_refused_as_too_long([&] { a.allocate_back(1 << 20); });
  expect_refused_as_too_long([&] { a.allocate_front(netbuf::everything); });
  expect_refused_as_too_long([&] { a.append(std::string(1 << 20, 's')); });
  EXPECT_EQ(a.size(), 2047 << 20);
  EXPECT_EQ(test::view_count(a), views);
}

TEST_F(netbuf_handle, string_longer_than_the_limit_is_refused) {
  constexpr std::size_t limit = 0x7fffffff;
  EXPECT_EQ(netbuf_imp::checked_length(limit), netbuf::everything);
  expect_refused_as_too_long([] { netbuf_imp::checked_length(limit + 1); });
  expect_refused_as_too_long([] { netbuf_imp::checked_length(~std::size_t{0}); });
}
