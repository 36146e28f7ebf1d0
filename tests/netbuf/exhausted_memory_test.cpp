/// Every allocation of an operation made to fail in turn: what it changed must be undone.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "tests/netbuf/support.h"

using netbuf_imp::end;
using test::content;
using test::from_text;

namespace {

// The allocations of this thread that still succeed; negative: all do.
thread_local int g_allocations_left = -1;

void* allocate(std::size_t bytes) {
  if (g_allocations_left == 0) throw std::bad_alloc();
  if (g_allocations_left > 0) --g_allocations_left;
  if (void* memory = std::malloc(bytes == 0 ? 1 : bytes)) return memory;
  throw std::bad_alloc();
}

/// Runs `change` with its first, second, ... allocation failing until it needs no more. After
/// every failure `intact` must hold. Returns the number of failures.
template <class Change, class Check>
int fail_each_allocation(Change change, Check intact) {
  for (int allowed = 0;; ++allowed) {
    g_allocations_left = allowed;
    try {
      change();
      g_allocations_left = -1;
      return allowed;
    } catch (const std::bad_alloc&) {
      g_allocations_left = -1;
      intact();
    }
  }
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

void* operator new(std::size_t bytes) {
  return allocate(bytes);
}
void* operator new[](std::size_t bytes) {
  return allocate(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}

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
  g_allocations_left = 0;
  netbuf a;
  const netbuf b = a;
  a.append(b);
  EXPECT_EQ(a.size() + static_cast<std::int32_t>(b.to_string().size()), 0);
  g_allocations_left = -1;
}

TEST_F(exhausted_memory, at_assignment_leaves_the_old_content) {
  expect_intact([](netbuf& a, const netbuf& other) { a = other; });
  expect_intact([](netbuf& a, const netbuf& other) { a = netbuf(other, 1, 3); });
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
  g_allocations_left = 0;
  void* block = netbuf_impl.block_try_allocate(10);
  g_allocations_left = -1;
  EXPECT_EQ(block, nullptr);
  g_allocations_left = 0;
  EXPECT_THROW(netbuf_impl.block_allocate(10), std::bad_alloc);
  g_allocations_left = -1;
}
