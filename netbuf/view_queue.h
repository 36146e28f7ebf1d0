#pragma once

/// The double-ended queue of views that a buffer consists of.

#include <cstddef>
#include <memory>
#include <utility>

#include "netbuf/netbuf_imp.h"

namespace netbuf_imp {

/// A ring. Most buffers hold one view or a few, so that many stand in the object itself; beyond
/// that the ring moves to memory of its own and doubles, and stays there.
///
/// Room is made first, where failure can still be told; adding to room and removing never fail.
class view_queue {
 public:
  view_queue() noexcept = default;
  ~view_queue() {
    clear();
    if (views_ != own_room()) general_free(views_);
  }
  view_queue(const view_queue&) = delete;
  view_queue& operator=(const view_queue&) = delete;

  std::size_t size() const noexcept { return count_; }
  bool empty() const noexcept { return count_ == 0; }

  /// The view with that number from the front, which must be there.
  view& operator[](std::size_t i) noexcept { return *slot(i); }
  const view& operator[](std::size_t i) const noexcept { return *slot(i); }
  /// The view at that end of a queue that is not empty.
  view& at(end where) noexcept { return *slot(where == end::front ? 0 : count_ - 1); }

  /// Sees to it that `more` views can be added. Throws `std::bad_alloc` and changes nothing when
  /// that is not possible. References to views end here.
  void make_room(std::size_t more) {
    if (more > capacity_ - count_) enlarge(count_ + more);
  }

  /// Adds a view where room was made.
  void push(view&& added, end where) noexcept {
    if (where == end::front) head_ = (head_ - 1) & (capacity_ - 1);
    ++count_;
    new (&at(where)) view(std::move(added));
  }

  /// Removes the view at that end and gives up its reference.
  void pop(end where) noexcept {
    at(where).~view();
    if (where == end::front) head_ = (head_ + 1) & (capacity_ - 1);
    --count_;
  }

  /// Removes all. Neighbours that look at one chunk give their references up in one step.
  void clear() noexcept {
    while (!empty()) {
      chunk* const shared = release_last();
      std::int32_t references = 1;
      for (; !empty() && at(end::back).get_chunk() == shared; ++references) release_last();
      if (shared->dec(references)) delete shared;
    }
  }

 private:
  static constexpr std::size_t own_capacity = 4;

  view* own_room() noexcept { return reinterpret_cast<view*>(own_room_); }
  view* slot(std::size_t i) const noexcept { return views_ + ((head_ + i) & (capacity_ - 1)); }

  chunk* release_last() noexcept {
    chunk* const released = at(end::back).release();
    --count_;
    return released;
  }

  void enlarge(std::size_t wanted);

  view* views_ = own_room();
  // A power of two.
  std::size_t capacity_ = own_capacity;
  std::size_t head_ = 0;
  std::size_t count_ = 0;
  alignas(view) unsigned char own_room_[own_capacity * sizeof(view)];
};

}  // namespace netbuf_imp
