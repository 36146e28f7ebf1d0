/// The memory of a deleted buffer that its thread keeps for the next.

#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <new>
#include <thread>

#include "netbuf/buffer.h"
#include "tests/faults/failing_memory.h"
#include "tests/netbuf/support.h"

using netbuf_imp::buffer;

namespace {

class spare_buffers : public test::with_builtin {};

/// Whether a buffer can be made of what the thread has kept.
bool one_is_kept() try {
  const test::no_memory from_now_on;
  delete new buffer;
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void use_up_thread_keys() {
  pthread_key_t key;
  while (::pthread_key_create(&key, nullptr) == 0) {
  }
}

}  // namespace

TEST_F(spare_buffers, next_buffer_needs_no_memory) {
  delete new buffer;
  EXPECT_TRUE(one_is_kept());
}

TEST_F(spare_buffers, one_is_kept_of_two) {
  const buffer* const first = new buffer;
  const buffer* const second = new buffer;
  delete first;
  delete second;
  const buffer* const third = new buffer;
  EXPECT_FALSE(one_is_kept());
  delete third;
}

TEST_F(spare_buffers, each_thread_has_its_own) {
  delete new buffer;
  std::thread([] { EXPECT_FALSE(one_is_kept()); }).join();
  EXPECT_TRUE(one_is_kept());
}

// Under the address sanitizer, whose allocator counts nothing here, a lost one would be a leak.
TEST_F(spare_buffers, end_with_their_thread) {
  constexpr std::size_t threads = 300;
  const auto use_one = [] { std::thread([] { delete new buffer; }).join(); };
  use_one();
  const std::size_t before = ::mallinfo2().uordblks;
  for (std::size_t i = 0; i < threads; ++i) use_one();
  EXPECT_LT(::mallinfo2().uordblks, before + threads * sizeof(buffer) / 2);
}

TEST_F(spare_buffers, are_not_kept_where_the_end_of_a_thread_is_not_told) {
  EXPECT_IN_FRESH_PROCESS({
    use_up_thread_keys();
    delete new buffer;
    EXPECT_FALSE(one_is_kept());
  });
}
