#pragma once

/// The implementation object behind a `netbuf`: a queue of views and their total length.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "netbuf/view_queue.h"

namespace netbuf_imp {

///     views_:  front [ view ][ view ] ... [ view ] back
///              room before the first |    | room behind the last
///
/// The operations are those of the table (netbuf/operations.h), with the same rules for lengths,
/// limits and failures. Between two of them no view is empty and `size()` is the sum of the views'
/// lengths.
///
/// What is done most, growing and shrinking the end view where it stands and reading the first one,
/// is done inline.
class buffer {
 public:
  buffer() = default;
  /// Shares the other's whole content, or a range of it.
  buffer(const buffer& other) { add(other, end::back); }
  buffer(const buffer& other, std::int32_t offset, std::int32_t length);
  buffer& operator=(const buffer&) = delete;

  /// Each thread keeps the memory of one buffer that it deleted for the next one it makes, until it
  /// ends. Throws `std::bad_alloc`.
  static void* operator new(std::size_t bytes);
  static void operator delete(void* memory) noexcept;

  std::int32_t size() const noexcept { return total_; }
  /// The views in order. References to them end with the next operation that is not const.
  std::size_t view_count() const noexcept { return views_.size(); }
  const view& view_at(std::size_t i) const noexcept { return views_[i]; }

  void add(const buffer& other, end where);
  void add_memory(char* memory, std::int32_t length, end where, memory_rights rights,
                  release_function release, void* context);
  void take(buffer& other, end where);

  char* allocate(std::int32_t n, end where) {
    if (n < 1 || n > known_room(where)) return allocate_beyond_room(n, where);
    known_room(where) -= n;
    return grow_end_view(n, where);
  }
  char* allocate_some(std::int32_t minimum, std::int32_t maximum, end where, std::int32_t* length);

  const char* pull_up(std::int32_t limit, std::int32_t* length);
  /// The content as a string; `pull_up` of everything on the way.
  std::string to_string();
  void erase(std::int32_t n, end where) noexcept {
    if (n < 1) return;
    if (views_.empty() || n >= views_.at(where).length()) return erase_views(n, where);
    total_ -= n;
    known_room(where) += n;
    views_.at(where).shrink(n, where);
  }
  /// `copy_out` from the front, without removing.
  std::int32_t copy_front(char* dest, std::int32_t n) const {
    if (n < 1) return 0;
    if (views_.empty() || n > views_[0].length()) return copy_views(dest, n);
    std::memcpy(dest, views_[0].data(), static_cast<std::size_t>(n));
    return n;
  }
  std::int32_t copy_out(char* dest, std::int32_t n, end where, after_copy then);

  std::int32_t find(char byte, std::int32_t n) const;
  std::int32_t compare(const char* data, std::int32_t n) const;

 private:
  // With this many views the next growth first makes one of them.
  static constexpr std::size_t view_count_to_compact = 129;

  // So far below 0 that no erasure from a buffer brings it up to 1.
  static constexpr std::int32_t room_unknown = std::numeric_limits<std::int32_t>::min();

  /// The part of the room at that end that may be taken with nothing to be asked.
  std::int32_t& known_room(end where) noexcept {
    return where == end::front ? front_room_ : back_room_;
  }
  /// What a change of the views calls, and a buffer whose chunks get another reference.
  void forget_rooms() const noexcept { front_room_ = back_room_ = room_unknown; }
  /// What a growth calls: the view at that end is the only one of its chunk.
  void learn_room(end where) noexcept;

  char* grow_end_view(std::int32_t n, end where) noexcept {
    total_ += n;
    return views_.at(where).grow(n, where);
  }
  char* allocate_beyond_room(std::int32_t n, end where);
  void erase_views(std::int32_t n, end where) noexcept;
  std::int32_t copy_views(char* dest, std::int32_t n) const;

  /// Throws `std::length_error` when `more` bytes would be too many.
  void refuse_beyond_limit(std::int32_t more) const;
  void compact();
  void gather(std::size_t count, std::int32_t length);
  std::int32_t room(end where) noexcept {
    return views_.empty() ? 0 : views_.at(where).room(where);
  }
  std::int32_t new_chunk_size(std::int32_t n, std::int32_t total) const;
  char* grow_by_new_view(chunk* made, std::int32_t n, end where) noexcept;
  void copy_range(char* dest, std::int32_t offset, std::int32_t n) const;

  std::int32_t total_ = 0;
  view_queue views_;
  // Known, neither needs the views' number, their chunks' references or the limit to be looked at:
  // there are fewer views than are made one, their chunks have no other reference, and
  // `total_` and both rooms together are within the limit. Mutable, as sharing ends that.
  mutable std::int32_t front_room_ = room_unknown;
  mutable std::int32_t back_room_ = room_unknown;
};

}  // namespace netbuf_imp
