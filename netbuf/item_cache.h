#pragma once

/// A recycler of equally sized pieces of memory.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "muro/sys/thread.h"

namespace muro {

/// Hands out items of one size and takes them back into a first-in first-out free list. When the
/// list is empty a batch of items is allocated in one piece, as long as batches remain allowed.
/// Memory that came in once is kept until the cache ends; the process's caches never end.
///
/// `Item` is a record without alignment of its own that stands at the beginning of each item's
/// memory and has
/// - `Item* next() const` and `void set_next(Item*)`, a link that the cache uses while it has the
///   item;
/// - `static Item* allocate(std::size_t bytes)` and `static void deallocate(Item*)`, the memory of
///   a batch.
///
/// Threads: all operations may be called from any thread; the cache's own mutex guards it.
template <class Item>
class simple_item_cache {
 public:
  /// Items of `item_size` bytes, `items_per_batch` at a time (0 stands for 64), from at most
  /// `batches` batches. Allocates nothing yet.
  simple_item_cache(std::size_t item_size, std::size_t items_per_batch, std::size_t batches)
      : item_size_(item_size),
        items_per_batch_(items_per_batch == 0 ? default_items_per_batch : items_per_batch),
        batches_left_(batches) {}

  /// Every item must have been given back or forgotten.
  ~simple_item_cache() {
    for (Item* batch : batches_) Item::deallocate(batch);
  }

  simple_item_cache(const simple_item_cache&) = delete;
  simple_item_cache& operator=(const simple_item_cache&) = delete;

  /// The item that has waited longest; null when all are out and no batch is allowed any more.
  /// Throws `std::bad_alloc` when a batch is allowed and memory is exhausted.
  Item* take() {
    rec_lock lock(mutex_);
    if (fresh_left_ == 0 && first_ == nullptr) {
      if (batches_left_ == 0) return nullptr;
      add_batch_locked();
    }
    return fresh_left_ != 0 ? take_fresh_locked() : take_returned_locked();
  }

  /// Takes back an item that `take` handed out.
  void give(Item* item) noexcept {
    rec_lock lock(mutex_);
    item->set_next(nullptr);
    if (first_ == nullptr) {
      first_ = item;
    } else {
      last_->set_next(item);
    }
    last_ = item;
  }

  std::size_t item_size() const { return item_size_; }
  std::size_t items_per_batch() const { return items_per_batch_; }

  std::size_t batches_left() {
    rec_lock lock(mutex_);
    return batches_left_;
  }

 private:
  static constexpr std::size_t default_items_per_batch = 64;

  void add_batch_locked() {
    batches_.reserve(batches_.size() + 1);
    fresh_ = Item::allocate(item_size_ * items_per_batch_);
    batches_.push_back(fresh_);
    fresh_left_ = items_per_batch_;
    --batches_left_;
  }

  // A new batch enters an empty list, so its items come before all that are given back later: they
  // need no links, and the memory of one is not touched before it is handed out.
  Item* take_fresh_locked() {
    Item* item = fresh_;
    fresh_ = reinterpret_cast<Item*>(reinterpret_cast<char*>(fresh_) + item_size_);
    --fresh_left_;
    return item;
  }

  Item* take_returned_locked() {
    Item* item = first_;
    first_ = item->next();
    return item;
  }

  rec_mutex mutex_;
  const std::size_t item_size_;
  const std::size_t items_per_batch_;
  std::size_t batches_left_;
  // The rest of the newest batch, never handed out yet; the front of the free list.
  Item* fresh_ = nullptr;
  std::size_t fresh_left_ = 0;
  // The items that were given back; the rest of the free list. `last_` means nothing without
  // `first_`.
  Item* first_ = nullptr;
  Item* last_ = nullptr;
  std::vector<Item*> batches_;
};

}  // namespace muro
