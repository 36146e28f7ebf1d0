#pragma once

/// Log lines on their way from callers to the dumper. A caller's line costs one copy: its bytes go
/// behind those of the line before, in large blocks that are used again.
///
///     slice   | head | text ...... | head | text .. | head | raw_log_line |      free      |
///             the head tells kind and size; all heads are aligned

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <string_view>

#include "muro/core/log_text.h"

namespace muro {

/// A line that its producer has formatted: `prefix_length` bytes of prefix, one separator byte,
/// the message and its line end. The buffer is the producer's until `release` (if any) is called
/// with it.
struct raw_log_line {
  const char* data;
  std::size_t length;
  std::size_t prefix_length;
  void (*release)(const char* data);

  std::string_view bytes() const { return {data, length}; }
  std::string_view message() const { return log_text::raw_message(bytes(), prefix_length); }
};

/// A text in the parts that its caller has, "[12] ", "name" and "message": "[12] name: message". The
/// prefix and the name may be empty.
struct text_parts {
  std::string_view prefix;
  std::string_view name;
  std::string_view message;

  std::size_t size() const {
    return prefix.size() + (name.empty() ? 0 : name.size() + 2) + message.size();
  }
  /// Writes `size()` bytes.
  void copy_to(char* out) const {
    out = std::copy(prefix.begin(), prefix.end(), out);
    if (!name.empty()) {
      out = std::copy(name.begin(), name.end(), out);
      *out++ = ':';
      *out++ = ' ';
    }
    std::copy(message.begin(), message.end(), out);
  }
};

/// Between what one thread changes all the time and what another one does, or each would wait for
/// the other's cache. Two lines: some processors fetch them in pairs.
struct cache_line_gap {
  char bytes[128];
};

/// One entry of a queue, which owns its bytes: a text without timestamp and line end, or a raw line.
struct log_entry {
  std::string_view text;
  const raw_log_line* raw;  // null: a text
};

/// What is written of a queue at once. It takes entries until there are `kSize` bytes of text, or
/// no room is left.
class log_slice {
 public:
  static constexpr std::size_t kSize = 0x40000;

  /// With room for an entry of `entry_size` bytes at least.
  explicit log_slice(std::size_t entry_size);

  /// Makes an entry and gives the place of its bytes; null when the slice takes no more. `length` is
  /// what the line counts for.
  char* add(std::size_t entry_size, std::size_t length, bool is_raw) {
    const std::size_t room = room_for(entry_size);
    if (room > room_ - used_ || length_ >= kSize) return nullptr;
    char* const place = bytes_.get() + used_;
    new (place) head{entry_size, is_raw};
    used_ += room;
    length_ += length + kLineCost;
    return place + sizeof(head);
  }

  /// Calls `use` with every entry, oldest first.
  template <class Use>
  void for_each(Use use) const {
    const std::size_t end = used_;
    for (std::size_t at = 0; at != end;) {
      head h;
      std::memcpy(&h, bytes_.get() + at, sizeof h);
      const char* const entry = bytes_.get() + at + sizeof h;
      const auto* const raw = h.is_raw ? reinterpret_cast<const raw_log_line*>(entry) : nullptr;
      use(log_entry{h.is_raw ? std::string_view() : std::string_view(entry, h.size), raw});
      at += room_for(h.size);
    }
  }

  bool empty() const { return used_ == 0; }
  void clear() { used_ = length_ = 0; }
  bool is_usual() const { return room_ == kSize; }
  /// The bytes of its lines as they stand in a file, unless something is escaped.
  std::size_t length() const { return length_; }

 private:
  struct head {
    std::size_t size;
    bool is_raw;
  };
  /// Timestamp, blank and line end.
  static constexpr std::size_t kLineCost = 22;
  static constexpr std::size_t kAlignment = alignof(std::max_align_t);
  static constexpr std::size_t room_for(std::size_t entry_size) {
    return (sizeof(head) + entry_size + kAlignment - 1) / kAlignment * kAlignment;
  }
  static_assert(sizeof(head) % kAlignment == 0, "raw lines are used where they lie");

  // A caller changes the rest with each line, and what lies beside may be the dumper's.
  [[maybe_unused]] cache_line_gap before_;
  std::size_t room_;
  std::unique_ptr<char[]> bytes_;
  std::size_t used_ = 0;
  std::size_t length_ = 0;
  [[maybe_unused]] cache_line_gap behind_;
};

/// First in, first out. One thread at a time.
class log_queue {
 public:
  log_queue() = default;
  log_queue(const log_queue&) = delete;
  log_queue& operator=(const log_queue&) = delete;

  /// Adds one text, its parts put together. Throws `std::bad_alloc` alone; nothing was added then.
  void push(const text_parts& parts);
  /// Adds a text or a raw line; likewise.
  void push(std::string_view text) { push(text_parts{"", "", text}); }
  void push(const raw_log_line& line);

  bool empty() const { return slices_.empty() || slices_.front().empty(); }
  void swap(log_queue& other) noexcept { slices_.swap(other.slices_); }

  /// The oldest entries. Not of an empty queue.
  const log_slice& front() const { return slices_.front(); }
  /// Removes them and frees their memory, but keeps one usual slice's for the entries to come.
  void pop_front();

 private:
  char* add(std::size_t entry_size, std::size_t length, bool is_raw);
  char* add_to_new_slice(std::size_t entry_size, std::size_t length, bool is_raw);

  std::list<log_slice> slices_;  // none but a single one is empty
};

}  // namespace muro
