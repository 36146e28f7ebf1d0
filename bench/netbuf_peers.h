#pragma once

/// The byte buffers that are measured side by side, each behind the same few operations, done in
/// the way that its own documentation recommends:
///
/// - `append`, `prepend` copy bytes in; `share` adds another buffer's content, without copying
///   where the peer can, and `take` one that is not needed any more, the cheapest way there is;
/// - `receive` has `room` bytes at the back filled and keeps as many as `fill` says it has set;
/// - `peek` copies from the front, `drop_front` and `drop_back` remove;
/// - `to_string` copies the whole content out, through a pull-up where the peer has one.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "netbuf/netbuf.h"

#ifdef KORVEL_BENCH_EVBUFFER
#include <event2/buffer.h>
#endif
#ifdef KORVEL_BENCH_CORD
#include "absl/strings/cord.h"
#include "absl/strings/cord_buffer.h"
#endif

namespace bench {

inline std::int32_t as_length(std::size_t n) {
  return static_cast<std::int32_t>(n);
}

class netbuf_bytes {
 public:
  void append(const char* data, std::size_t n) {
    std::memcpy(bytes_.allocate_back(as_length(n)), data, n);
  }
  void prepend(const char* data, std::size_t n) {
    std::memcpy(bytes_.allocate_front(as_length(n)), data, n);
  }
  void share(const netbuf_bytes& other) { bytes_.append(other.bytes_); }
  void take(netbuf_bytes&& other) { bytes_.append(std::move(other.bytes_)); }
  template <class Fill>
  void receive(std::size_t room, Fill fill) {
    const std::size_t used = fill(bytes_.allocate_back(as_length(room)));
    bytes_.erase_back(as_length(room - used));
  }
  void peek(char* dest, std::size_t n) const { bytes_.copy_front(dest, as_length(n)); }
  void drop_front(std::size_t n) { bytes_.erase_front(as_length(n)); }
  void drop_back(std::size_t n) { bytes_.erase_back(as_length(n)); }
  std::string to_string() const { return bytes_.to_string(); }

 private:
  netbuf bytes_;
};

class string_bytes {
 public:
  void append(const char* data, std::size_t n) { bytes_.append(data, n); }
  void prepend(const char* data, std::size_t n) { bytes_.insert(0, data, n); }
  void share(const string_bytes& other) { bytes_.append(other.bytes_); }
  void take(string_bytes&& other) { share(other); }
  template <class Fill>
  void receive(std::size_t room, Fill fill) {
    const std::size_t before = bytes_.size();
    bytes_.resize(before + room);
    bytes_.resize(before + fill(bytes_.data() + before));
  }
  void peek(char* dest, std::size_t n) const { bytes_.copy(dest, n); }
  void drop_front(std::size_t n) { bytes_.erase(0, n); }
  void drop_back(std::size_t n) { bytes_.resize(bytes_.size() - n); }
  std::string to_string() const { return bytes_; }

 private:
  std::string bytes_;
};

/// One block of memory with that much room in front of its first byte and behind it.
template <std::size_t Front, std::size_t Back>
class flat_bytes {
 public:
  void append(const char* data, std::size_t n) {
    std::memcpy(end_, data, n);
    end_ += n;
  }
  void prepend(const char* data, std::size_t n) {
    start_ -= n;
    std::memcpy(start_, data, n);
  }
  template <class Fill>
  void receive(std::size_t, Fill fill) {
    end_ += fill(end_);
  }
  std::string to_string() const { return {start_, end_}; }

 private:
  std::unique_ptr<char[]> block_{new char[Front + Back]};
  char* start_ = block_.get() + Front;
  char* end_ = start_;
};

#ifdef KORVEL_BENCH_EVBUFFER
class evbuffer_bytes {
 public:
  evbuffer_bytes() : bytes_(evbuffer_new()) {}
  evbuffer_bytes(const evbuffer_bytes& other) : evbuffer_bytes() { share(other); }
  evbuffer_bytes(evbuffer_bytes&& other) noexcept : bytes_(std::exchange(other.bytes_, nullptr)) {}
  evbuffer_bytes& operator=(evbuffer_bytes other) noexcept {
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  ~evbuffer_bytes() {
    if (bytes_ != nullptr) evbuffer_free(bytes_);
  }
  void append(const char* data, std::size_t n) { evbuffer_add(bytes_, data, n); }
  void prepend(const char* data, std::size_t n) { evbuffer_prepend(bytes_, data, n); }
  void share(const evbuffer_bytes& other) {
    // References are refused for content that is itself a reference: that is copied.
    if (evbuffer_add_buffer_reference(bytes_, other.bytes_) != 0) append(other.to_string());
  }
  void take(evbuffer_bytes&& other) { evbuffer_add_buffer(bytes_, other.bytes_); }
  template <class Fill>
  void receive(std::size_t room, Fill fill) {
    evbuffer_iovec space;
    evbuffer_reserve_space(bytes_, static_cast<ev_ssize_t>(room), &space, 1);
    space.iov_len = fill(static_cast<char*>(space.iov_base));
    evbuffer_commit_space(bytes_, &space, 1);
  }
  void peek(char* dest, std::size_t n) const { evbuffer_copyout(bytes_, dest, n); }
  void drop_front(std::size_t n) { evbuffer_drain(bytes_, n); }
  void drop_back(std::size_t n) {
    evbuffer* kept = evbuffer_new();
    evbuffer_remove_buffer(bytes_, kept, evbuffer_get_length(bytes_) - n);
    evbuffer_free(std::exchange(bytes_, kept));
  }
  std::string to_string() const {
    const std::size_t n = evbuffer_get_length(bytes_);
    const auto* start = reinterpret_cast<const char*>(evbuffer_pullup(bytes_, -1));
    return start == nullptr ? std::string() : std::string(start, n);
  }

 private:
  void append(const std::string& text) { append(text.data(), text.size()); }

  evbuffer* bytes_;
};
#endif

#ifdef KORVEL_BENCH_CORD
class cord_bytes {
 public:
  void append(const char* data, std::size_t n) { bytes_.Append(absl::string_view(data, n)); }
  void prepend(const char* data, std::size_t n) { bytes_.Prepend(absl::string_view(data, n)); }
  void share(const cord_bytes& other) { bytes_.Append(other.bytes_); }
  void take(cord_bytes&& other) { bytes_.Append(std::move(other.bytes_)); }
  template <class Fill>
  void receive(std::size_t room, Fill fill) {
    absl::CordBuffer space = absl::CordBuffer::CreateWithCustomLimit(16384, room);
    space.SetLength(fill(space.data()));
    bytes_.Append(std::move(space));
  }
  void peek(char* dest, std::size_t n) const {
    const absl::Cord front = bytes_.Subcord(0, n);
    for (absl::string_view part : front.Chunks()) {
      std::memcpy(dest, part.data(), part.size());
      dest += part.size();
    }
  }
  void drop_front(std::size_t n) { bytes_.RemovePrefix(n); }
  void drop_back(std::size_t n) { bytes_.RemoveSuffix(n); }
  std::string to_string() const { return std::string(bytes_); }

 private:
  absl::Cord bytes_;
};
#endif

}  // namespace bench
