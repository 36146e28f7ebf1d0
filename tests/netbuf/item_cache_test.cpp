#include "netbuf/item_cache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "tests/netbuf/support.h"

namespace {

/// A cache item that counts the batches.
struct counted {
  counted* next() const {
    counted* item;
    std::memcpy(&item, link, sizeof item);
    return item;
  }
  void set_next(counted* item) { std::memcpy(link, &item, sizeof item); }
  static counted* allocate(std::size_t bytes) {
    last_batch_bytes = bytes;
    ++batches;
    return static_cast<counted*>(::operator new(bytes));
  }
  static void deallocate(counted* batch) {
    --batches;
    ::operator delete(batch);
  }

  unsigned char link[8];
  static inline int batches = 0;
  static inline std::size_t last_batch_bytes = 0;
};
using cache = muro::simple_item_cache<counted>;

class item_cache : public test::with_builtin {
 protected:
  void SetUp() override { counted::batches = 0; }
};

}  // namespace

TEST_F(item_cache, allocates_nothing_before_the_first_item) {
  cache c(20, 3, 2);
  EXPECT_EQ(counted::batches, 0);
  EXPECT_EQ(c.batches_left(), 2u);
}

TEST_F(item_cache, allocates_a_batch_in_one_piece) {
  cache c(20, 3, 2);
  counted* first = c.take();
  EXPECT_EQ(counted::last_batch_bytes, 60u);
  EXPECT_EQ(reinterpret_cast<char*>(c.take()), reinterpret_cast<char*>(first) + 20);
  c.take();
  EXPECT_EQ(counted::batches, 1);
  c.take();
  EXPECT_EQ(counted::batches, 2);
  EXPECT_EQ(c.batches_left(), 0u);
}

TEST_F(item_cache, yields_nothing_when_items_and_batches_are_used_up) {
  cache c(20, 2, 2);
  std::set<counted*> items;
  for (int i = 0; i < 4; ++i) items.insert(c.take());
  EXPECT_EQ(items.size(), 4u);
  EXPECT_EQ(items.count(nullptr), 0u);
  EXPECT_EQ(c.take(), nullptr);
  c.give(*items.begin());
  EXPECT_EQ(c.take(), *items.begin());
  EXPECT_EQ(c.take(), nullptr);
}

TEST_F(item_cache, hands_out_first_what_came_in_first) {
  cache c(20, 4, 1);
  counted* a = c.take();
  counted* b = c.take();
  c.give(b);
  c.give(a);
  // The rest of the batch has been in the list for longest.
  counted* third = c.take();
  counted* fourth = c.take();
  EXPECT_NE(third, a);
  EXPECT_NE(fourth, b);
  EXPECT_EQ(c.take(), b);
  EXPECT_EQ(c.take(), a);
}

TEST_F(item_cache, takes_0_items_a_batch_for_64) {
  EXPECT_EQ(cache(20, 0, 1).items_per_batch(), 64u);
  EXPECT_EQ(cache(20, 1, 1).items_per_batch(), 1u);
}

TEST_F(item_cache, keeps_its_memory_until_its_end) {
  {
    cache c(20, 1, 3);
    std::vector<counted*> items{c.take(), c.take(), c.take()};
    for (counted* item : items) c.give(item);
    EXPECT_EQ(counted::batches, 3);
  }
  EXPECT_EQ(counted::batches, 0);
}

TEST_F(item_cache, a_failed_batch_is_not_counted) {
  struct failing : counted {
    failing* next() const { return nullptr; }
    static failing* allocate(std::size_t) { throw std::bad_alloc(); }
    static void deallocate(failing*) {}
  };
  muro::simple_item_cache<failing> c(20, 2, 1);
  EXPECT_THROW(c.take(), std::bad_alloc);
  EXPECT_EQ(c.batches_left(), 1u);
}

TEST_F(item_cache, serves_threads_at_once) {
  class user : public muro::thread {
   public:
    explicit user(cache& from) : muro::thread(false, "", 0), from_(from) {}

   private:
    void run() override {
      for (int i = 0; i < 2000; ++i) {
        counted* item = from_.take();
        std::memset(item->link, i, sizeof item->link);
        from_.give(item);
      }
    }
    cache& from_;
  };
  if (muro::m_threads_mtx == nullptr) muro::init_thread();
  cache c(20, 2, 4);
  {
    user a(c);
    user b(c);
    a.detach();
    b.detach();
    a.synchronize();
    b.synchronize();
  }
  EXPECT_LE(counted::batches, 4);
}
