/// Every allocation of an operation made to fail in turn: what it changed must be undone.

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>
#include <utility>

#include "tests/faults/failing_memory.h"
#include "tests/netbuf/support.h"

using netbuf_imp::end;
using test::content;
using test::from_text;

namespace {

/// Runs `change` with its first, second, ... allocation failing until it needs no more. After
/// every failure `intact` must hold. Returns the number of failures.
int fail_each_allocation(std::function<void()> change, std::function<void()> intact) {
  return test::fail_each_allocation(test::shortage::lasting,
                                    {{}, std::move(change), std::move(intact)});
}

/// Five views, as many as the buffer has no room for in itself, the last of them shared.
netbuf five_views() {
  static netbuf shared = from_text("e");
  netbuf made = test::of_views({"a", "b", "c", "d"});
  made.append(shared);
  return made;
}

/// More views than a buffer of five has room for.
netbuf many_views() {
  netbuf made;
  for (char letter = 'k'; letter <= 'z'; ++letter) made.append(from_text(std::string(1, letter)));
  return made;
}

class exhausted_memory : public test::with_builtin {
 protected:
  /// The change of a five-view buffer fails at least once and leaves it as it was each time.
  template <class Change>
  void expect_intact(Change change) {
    netbuf a = five_views();
    const netbuf other = many_views();
    const int failures = fail_each_allocation([&] { change(a, other); },
                                              [&] {
                                                EXPECT_EQ(content(a), "abcde");
                                                EXPECT_EQ(content(other), "klmnopqrstuvwxyz");
                                              });
    EXPECT_GT(failures, 0);
  }
};

constexpr std::int32_t uncached = 100000;

}  // namespace

TEST_F(exhausted_memory, at_growth_leaves_the_buffer) {
  expect_intact([](netbuf& a, const netbuf&) { a.allocate_back(uncached); });
  expect_intact([](netbuf& a, const netbuf&) { a.allocate_front(uncached); });
}

TEST_F(exhausted_memory, at_growth_that_compacts_leaves_the_buffer) {
  netbuf a;
  for (int i = 0; i < 129; ++i) a.append(from_text("abc"));
  const std::string before = content(a);
  EXPECT_GT(fail_each_allocation([&] { a.allocate_back(uncached); },
                                 [&] { EXPECT_EQ(content(a), before); }),
            1);
}

TEST_F(exhausted_memory, at_append_leaves_both_buffers) {
  expect_intact([](netbuf& a, const netbuf& other) { a.append(other); });
  netbuf a = many_views();
  EXPECT_GT(fail_each_allocation([&] { a.append(a); },
                                 [&] { EXPECT_EQ(content(a), "klmnopqrstuvwxyz"); }),
            0);
}

TEST_F(exhausted_memory, at_append_of_a_string_leaves_the_buffer) {
  const std::string text(uncached, 's');
  expect_intact([&](netbuf& a, const netbuf&) { a.append(text); });
}

TEST_F(exhausted_memory, at_append_of_a_dying_buffer_leaves_both) {
  netbuf a = five_views();
  netbuf b = many_views();
  EXPECT_GT(fail_each_allocation([&] { a.append(std::move(b)); },
                                 [&] {
                                   EXPECT_EQ(content(a), "abcde");
                                   EXPECT_EQ(content(b), "klmnopqrstuvwxyz");
                                 }),
            0);
  EXPECT_EQ(content(a), "abcdeklmnopqrstuvwxyz");
}

TEST_F(exhausted_memory, is_no_matter_for_an_empty_buffer) {
  const test::no_memory none;
  netbuf a;
  const netbuf b = a;
  a.append(b);
  EXPECT_EQ(a.size() + static_cast<std::int32_t>(b.to_string().size()), 0);
}

TEST_F(exhausted_memory, at_assignment_leaves_the_old_content) {
  expect_intact([](netbuf& a, const netbuf& other) { a = other; });
  expect_intact([](netbuf& a, const netbuf& other) { a = netbuf(other, 1, 8); });
}

TEST_F(exhausted_memory, at_pull_up_leaves_the_buffer) {
  netbuf a = from_text(std::string(uncached, 'x'));
  a.append(from_text("y"));
  const std::string before = content(a);
  EXPECT_GT(fail_each_allocation([&] { a.to_string(); }, [&] { EXPECT_EQ(content(a), before); }),
            1);
}

TEST_F(exhausted_memory, at_move_in_leaves_both_buffers) {
  netbuf a = five_views();
  netbuf b = many_views();
  const int failures = fail_each_allocation([&] { netbuf_impl.take_front(a.object(), b.object()); },
                                            [&] {
                                              EXPECT_EQ(content(a), "abcde");
                                              EXPECT_EQ(content(b), "klmnopqrstuvwxyz");
                                            });
  EXPECT_GT(failures, 0);
  EXPECT_EQ(content(a), "klmnopqrstuvwxyzabcde");
}

TEST_F(exhausted_memory, leaves_supplied_memory_with_the_caller) {
  char memory[] = "abc";
  int released = 0;
  netbuf a = test::of_views({"a", "b", "c", "d"});
  const int failures = fail_each_allocation(
      [&] {
        netbuf_impl.add_memory(
            a.object(), memory, 3, end::back, netbuf_imp::memory_rights::writable,
            [](void* counter) { ++*static_cast<int*>(counter); }, &released);
      },
      [&] {
        EXPECT_EQ(content(a), "abcd");
        EXPECT_EQ(released, 0);
      });
  EXPECT_GT(failures, 1);
}

TEST_F(exhausted_memory, makes_the_trying_block_entry_give_null) {
  void* block = nullptr;
  bool threw = false;
  {
    const test::no_memory none;
    block = netbuf_impl.block_try_allocate(10);
    try {
      netbuf_impl.block_allocate(10);
    } catch (const std::bad_alloc&) {
      threw = true;
    }
  }
  EXPECT_EQ(block, nullptr);
  EXPECT_TRUE(threw);
}
