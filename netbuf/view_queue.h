#pragma once

/// The double-ended queue of views that a buffer consists of.

#include <cstddef>
#include <memory>
#include <utility>

#include "netbuf/netbuf_imp.h"

namespace netbuf_imp {

/// The views stand side by side, with room for more at both ends:
///
///     memory_   first_            end_      limit_
///     |.........[ view ][ view ]..|.........|
///
/// Most buffers hold one view or a few, so that many stand in the object itself. Where the room at
/// an end is used up the views move within their memory, or to memory of twice the size when they
/// are more than half of it; there they stay.
///
/// Room is made first, where failure can still be told; adding to room and removing never fail.
class view_queue {
 public:
  view_queue() noexcept = default;
  ~view_queue() {
    clear();
    if (memory_ != own_room()) general_free(memory_);
  }
  view_queue(const view_queue&) = delete;
  view_queue& operator=(const view_queue&) = delete;

  std::size_t size() const noexcept { return static_cast<std::size_t>(end_ - first_); }
  bool empty() const noexcept { return end_ == first_; }

  /// The view with that number from the front, which must be there.
  view& operator[](std::size_t i) noexcept { return first_[i]; }
  const view& operator[](std::size_t i) const noexcept { return first_[i]; }
  /// The view at that end of a queue that is not empty.
  view& at(end where) noexcept { return where == end::front ? *first_ : end_[-1]; }

  /// Sees to it that `more` views can be added at that end. Throws `std::bad_alloc` and changes
  /// nothing when that is not possible. References to views end here.
  void make_room(std::size_t more, end where) {
    const view* const room = where == end::front ? memory_ : end_;
    const view* const room_end = where == end::front ? first_ : limit_;
    if (more > static_cast<std::size_t>(room_end - room)) rearrange(more, where);
  }

  /// Adds a view where room was made, or one was removed.
  void push(view&& added, end where) noexcept {
    new (where == end::front ? --first_ : end_++) view(std::move(added));
  }

  /// Moves the views of `other` to where room for them was made, in their order.
  void take(view_queue& other, end where) noexcept {
    if (where == end::front) first_ -= other.size();
    view* const to = where == end::front ? first_ : end_;
    if (where == end::back) end_ += other.size();
    std::uninitialized_move(other.first_, other.end_, to);
    other.end_ = other.first_;  // views that were moved hold nothing
  }

  /// Removes the view at that end and gives up its reference.
  void pop(end where) noexcept { (where == end::front ? first_++ : --end_)->~view(); }

  /// Removes all. Neighbours that look at one chunk give their references up in one step.
  void clear() noexcept {
    while (!empty()) {
      chunk* const shared = (--end_)->release();
      std::int32_t references = 1;
      for (; !empty() && end_[-1].get_chunk() == shared; ++references) (--end_)->release();
      if (shared->dec(references)) delete shared;
    }
  }

 private:
  static constexpr std::size_t own_capacity = 4;

  view* own_room() noexcept { return reinterpret_cast<view*>(own_room_); }

  void rearrange(std::size_t more, end where);

  view* memory_ = own_room();
  view* first_ = memory_;
  view* end_ = memory_;
  view* limit_ = memory_ + own_capacity;
  alignas(view) unsigned char own_room_[own_capacity * sizeof(view)];
};

}  // namespace netbuf_imp
