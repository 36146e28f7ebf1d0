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
  buffer(const buffer& other, std::int32_t offset, std::int32_t length);
  buffer& operator=(const buffer&) = delete;

  std::int32_t size() const noexcept { return total_; }
  /// The views in order. References to them end with the next operation that is not const.
  std::size_t view_count() const noexcept { return views_.size(); }
  const view& view_at(std::size_t i) const noexcept { return views_[i]; }

  void add(const buffer& other, end where);
  void add_memory(char* memory, std::int32_t length, end where, memory_rights rights,
                  release_function release, void* context);
  void take(buffer& other, end where);

  char* allocate(std::int32_t n, end where) {
    if (!only_end_view_grows(n)) return allocate_beyond_view(n, where);
    view& grown = views_.at(where);
    if (n > grown.room(where)) return allocate_beyond_view(n, where);
    total_ += n;
    return grown.grow(n, where);
  }
  char* allocate_some(std::int32_t minimum, std::int32_t maximum, end where, std::int32_t* length);

  const char* pull_up(std::int32_t limit, std::int32_t* length);
  /// The content as a string; `pull_up` of everything on the way.
  std::string to_string();
  void erase(std::int32_t n, end where) noexcept {
    if (n < 1) return;
    if (views_.empty() || n >= views_.at(where).length()) return erase_views(n, where);
    total_ -= n;
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

  /// Whether growth by `n` is a matter of the end view alone, if that has the room: neither too long
  /// nor too many views. Without views one less than their number is more than any.
  bool only_end_view_grows(std::int32_t n) const noexcept {
    return n > 0 && total_ <= std::numeric_limits<std::int32_t>::max() - n &&
           views_.size() - 1 < view_count_to_compact - 1;
  }
  char* grow_end_view(std::int32_t n, end where) noexcept {
    total_ += n;
    return views_.at(where).grow(n, where);
  }
  char* allocate_beyond_view(std::int32_t n, end where);
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

  view_queue views_;
  std::int32_t total_ = 0;
};

}  // namespace netbuf_imp
