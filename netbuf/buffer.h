#pragma once

/// The implementation object behind a `netbuf`: a queue of views and their total length.

#include <cstddef>
#include <cstdint>

#include "netbuf/view_queue.h"

namespace netbuf_imp {

///     views_:  front [ view ][ view ] ... [ view ] back
///              room before the first |    | room behind the last
///
/// The operations are those of the table (netbuf/operations.h), with the same rules for lengths,
/// limits and failures. Between two of them no view is empty and `size()` is the sum of the views'
/// lengths.
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

  char* allocate(std::int32_t n, end where);
  char* allocate_some(std::int32_t minimum, std::int32_t maximum, end where, std::int32_t* length);

  const char* pull_up(std::int32_t limit, std::int32_t* length);
  void erase(std::int32_t n, end where) noexcept;
  std::int32_t copy_out(char* dest, std::int32_t n, end where, after_copy then);

  std::int32_t find(char byte, std::int32_t n) const;
  std::int32_t compare(const char* data, std::int32_t n) const;

 private:
  /// Throws `std::length_error` when `more` bytes would be too many.
  void refuse_beyond_limit(std::int32_t more) const;
  void compact();
  void gather(std::size_t count, std::int32_t length);
  std::int32_t room(end where);
  std::int32_t new_chunk_size(std::int32_t n, std::int32_t total) const;
  char* grow_end_view(std::int32_t n, end where) noexcept;
  char* grow_by_new_view(chunk* made, std::int32_t n, end where) noexcept;
  void copy_range(char* dest, std::int32_t offset, std::int32_t n) const;

  view_queue views_;
  std::int32_t total_ = 0;
};

}  // namespace netbuf_imp
