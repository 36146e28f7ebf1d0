#include "netbuf/buffer.h"

#include <algorithm>
#include <limits>

namespace netbuf_imp {
namespace {

constexpr std::int32_t everything = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t largest_growth_chunk = 1048576;

}  // namespace

buffer::buffer(const buffer& other, std::int32_t offset, std::int32_t length) {
  offset = std::max(offset, 0);
  if (length < 1 || offset >= other.total_) return;
  length = std::min(length, other.total_ - offset);
  other.forget_rooms();

  // No view is empty, so neither loop leaves the other's views.
  std::size_t first = 0;
  while (offset >= other.views_[first].length()) offset -= other.views_[first++].length();

  for (std::size_t i = first; total_ < length; ++i) {
    views_.make_room(1, end::back);
    view shared = other.views_[i];
    if (i == first) shared.shrink(offset, end::front);
    const std::int32_t surplus = shared.length() - (length - total_);
    if (surplus > 0) shared.shrink(surplus, end::back);
    total_ += shared.length();
    views_.push(std::move(shared), end::back);
  }
}

void buffer::refuse_beyond_limit(std::int32_t more) const {
  checked_length(static_cast<std::size_t>(total_) + static_cast<std::size_t>(more));
}

void buffer::add(const buffer& other, end where) {
  refuse_beyond_limit(other.total_);
  const std::int32_t added = other.total_;
  const std::size_t count = other.views_.size();
  views_.make_room(count, where);
  forget_rooms();
  other.forget_rooms();
  for (std::size_t i = 0; i < count; ++i) {
    // At the front the last view goes first. Added to itself the buffer moves on by one each time.
    const std::size_t back_to_front = count - 1 - (&other == this ? 0 : i);
    const std::size_t from = where == end::back ? i : back_to_front;
    views_.push(view(other.views_[from]), where);
  }
  total_ += added;
}

void buffer::add_memory(char* memory, std::int32_t length, end where, memory_rights rights,
                        release_function release, void* context) {
  if (length < 1) {
    if (release != nullptr) release(context);
    return;
  }
  refuse_beyond_limit(length);
  views_.make_room(1, where);
  views_.push(view(new cchunk(memory, length, rights, release, context), 0, length), where);
  forget_rooms();
  total_ += length;
}

void buffer::take(buffer& other, end where) {
  if (&other == this) return;
  refuse_beyond_limit(other.total_);
  views_.make_room(other.views_.size(), where);
  views_.take(other.views_, where);
  forget_rooms();
  other.forget_rooms();
  total_ += std::exchange(other.total_, 0);
}

// Bounds the number of views, and with it the time of every operation that visits them all.
void buffer::compact() {
  if (views_.size() >= view_count_to_compact) gather(views_.size(), total_);
}

// Puts the first `count` views, `length` bytes together, into one new chunk.
void buffer::gather(std::size_t count, std::int32_t length) {
  chunk* made = new nchunk(length);
  view joined(made, 0, length);
  copy_range(made->memory(), 0, length);
  forget_rooms();
  while (count-- > 0) views_.pop(end::front);
  views_.push(std::move(joined), end::front);
}

// The room that the new chunk has beyond `n` lies where the next growth at this end wants it.
char* buffer::grow_by_new_view(chunk* made, std::int32_t n, end where) noexcept {
  total_ += n;
  view added(made, where == end::back ? 0 : made->capacity() - n, n);
  char* start = made->memory() + added.offset();
  views_.push(std::move(added), where);
  return start;
}

// The chunk for `n` more bytes in a buffer that holds `total` bytes then. It grows with the buffer,
// so that the number of chunks grows with the logarithm of the length only.
std::int32_t buffer::new_chunk_size(std::int32_t n, std::int32_t total) const {
  const auto count = static_cast<std::int32_t>(views_.size());
  return std::max(n, std::min(count * 128 + total / 4 + 128, largest_growth_chunk));
}

void buffer::learn_room(end where) noexcept {
  const end other = where == end::front ? end::back : end::front;
  const std::int32_t learnt = room(where);
  const std::int64_t at_most = std::int64_t{total_} + learnt + std::max(known_room(other), 0);
  if (views_.size() >= view_count_to_compact || at_most > everything) return forget_rooms();
  known_room(where) = learnt;
}

char* buffer::allocate_beyond_room(std::int32_t n, end where) {
  if (n < 1) return nullptr;
  refuse_beyond_limit(n);
  compact();
  // Whatever may throw is done before anything is changed.
  char* grown;
  if (room(where) >= n) {
    grown = grow_end_view(n, where);
  } else {
    views_.make_room(1, where);
    grown = grow_by_new_view(new nchunk(new_chunk_size(n, total_ + n)), n, where);
  }
  // Many buffers grow once, and need to know nothing.
  if (total_ > n) learn_room(where);
  return grown;
}

char* buffer::allocate_some(std::int32_t minimum, std::int32_t maximum, end where,
                            std::int32_t* length) {
  *length = 0;
  if (minimum < 1) return nullptr;
  refuse_beyond_limit(minimum);
  maximum = std::clamp(maximum, minimum, everything - total_);
  compact();
  forget_rooms();
  const std::int32_t there = room(where);
  if (there >= minimum) {
    *length = std::min(there, maximum);
    return grow_end_view(*length, where);
  }
  views_.make_room(1, where);
  chunk* made = new nchunk(new_chunk_size(minimum, total_ + minimum));
  *length = std::min(made->capacity(), maximum);
  return grow_by_new_view(made, *length, where);
}

const char* buffer::pull_up(std::int32_t limit, std::int32_t* length) {
  *length = 0;
  if (views_.empty()) return nullptr;
  if (views_.size() > 1) {
    if (total_ <= limit) {
      gather(views_.size(), total_);
    } else if (views_[0].length() <= limit / 2) {
      // Short views are worth joining; one that is long enough is not worth copying.
      std::size_t count = 0;
      std::int32_t gathered = 0;
      while (count < views_.size() && gathered < limit && views_[count].length() <= limit / 2) {
        gathered += views_[count++].length();
      }
      gather(count, gathered);
    }
  }
  *length = views_[0].length();
  return views_[0].data();
}

// One walk for both copies: a view's bytes are still in the processor's cache for the second.
std::string buffer::to_string() {
  std::string text;
  text.reserve(static_cast<std::size_t>(total_));
  if (views_.size() == 1) text.append(views_[0].data(), static_cast<std::size_t>(total_));
  if (views_.size() < 2) return text;
  view joined(new nchunk(total_), 0, 0);
  for (std::size_t i = 0; i < views_.size(); ++i) {
    const view& from = views_[i];
    const auto length = static_cast<std::size_t>(from.length());
    std::memcpy(joined.grow(from.length(), end::back), from.data(), length);
    text.append(from.data(), length);
  }
  forget_rooms();
  views_.clear();
  views_.push(std::move(joined), end::back);
  return text;
}

void buffer::erase_views(std::int32_t n, end where) noexcept {
  forget_rooms();
  if (n >= total_) {
    views_.clear();
    total_ = 0;
    return;
  }
  total_ -= n;
  while (n >= views_.at(where).length()) {
    n -= views_.at(where).length();
    views_.pop(where);
  }
  views_.at(where).shrink(n, where);
}

// Copies `n` bytes from `offset` on, all of which are there.
void buffer::copy_range(char* dest, std::int32_t offset, std::int32_t n) const {
  for (std::size_t i = 0; n > 0; ++i) {
    const view& from = views_[i];
    if (offset >= from.length()) {
      offset -= from.length();
      continue;
    }
    const std::int32_t part = std::min(n, from.length() - offset);
    std::memcpy(dest, from.data() + offset, static_cast<std::size_t>(part));
    dest += part;
    n -= part;
    offset = 0;
  }
}

std::int32_t buffer::copy_views(char* dest, std::int32_t n) const {
  n = std::min(n, total_);
  copy_range(dest, 0, n);
  return n;
}

std::int32_t buffer::copy_out(char* dest, std::int32_t n, end where, after_copy then) {
  if (n < 1) return 0;
  n = std::min(n, total_);
  copy_range(dest, where == end::front ? 0 : total_ - n, n);
  if (then == after_copy::remove) erase(n, where);
  return n;
}

std::int32_t buffer::find(char byte, std::int32_t n) const {
  n = std::min(n, total_);
  std::int32_t passed = 0;
  for (std::size_t i = 0; passed < n; ++i) {
    const view& in = views_[i];
    const std::int32_t part = std::min(n - passed, in.length());
    if (const void* hit = std::memchr(in.data(), byte, static_cast<std::size_t>(part))) {
      return passed + static_cast<std::int32_t>(static_cast<const char*>(hit) - in.data());
    }
    passed += part;
  }
  return -1;
}

std::int32_t buffer::compare(const char* data, std::int32_t n) const {
  if (n < 1) return 0;
  const std::int32_t common = std::min(n, total_);
  std::int32_t passed = 0;
  for (std::size_t i = 0; passed < common; ++i) {
    const view& in = views_[i];
    const std::int32_t part = std::min(common - passed, in.length());
    const int order = std::memcmp(in.data(), data + passed, static_cast<std::size_t>(part));
    if (order != 0) return order < 0 ? -1 : 1;
    passed += part;
  }
  return common < n ? -1 : 0;
}

}  // namespace netbuf_imp
