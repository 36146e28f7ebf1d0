#pragma once

/// The built-in implementation of `netbuf`: chunks of memory, views into them, the caches that
/// chunk memory comes from, and the operation table over all this.
///
/// A chunk counts the views that look at it. A view is a chunk and a range of its memory:
///
///     chunk:   memory |.......xxxxxxxxxxxx.......|
///                     0       offset             capacity
///                             <- length ->
///
/// The bytes outside the view's range are free room for the view to grow into, provided that it is
/// the chunk's only view.
///
/// Chunk memory has a size of one of five classes and comes from that class's cache; what is
/// larger, or finds its cache used up, comes from the general allocator in its exact size:
///
///     chunk size   items per batch   batches        an item:  | link 8 | chunk memory | 4 |
///        128            1000           256
///        512             500           256
///       2048             500            64
///       8192             150            64
///      65536              50            32

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "netbuf/item_cache.h"
#include "netbuf/operations.h"

namespace netbuf_imp {

/// Memory taken from the general allocator is filled with zeros, for tools that watch for the use
/// of unset memory. False by default; set by the initialisation, before threads start.
extern bool netbuf_memchecker;

/// One item of a chunk-memory cache: a link word, then the chunk's memory. Items follow each other
/// without regard to alignment, so the link is only copied in and out.
class cache_mem {
 public:
  static constexpr std::size_t link_size = 8;
  /// What an item takes beyond the chunk's memory: the link and four bytes that nothing uses.
  static constexpr std::size_t overhead = 12;

  /// The item whose memory this is, and the other way round.
  static cache_mem* of(char* memory) { return reinterpret_cast<cache_mem*>(memory - link_size); }
  char* memory() { return reinterpret_cast<char*>(this) + link_size; }

  cache_mem* next() const {
    cache_mem* item;
    std::memcpy(&item, link_, link_size);
    return item;
  }
  void set_next(cache_mem* item) { std::memcpy(link_, &item, link_size); }

  /// The memory of a batch, from the general allocator.
  static cache_mem* allocate(std::size_t bytes);
  static void deallocate(cache_mem* batch);

 private:
  unsigned char link_[link_size];
};
static_assert(alignof(cache_mem) == 1 && sizeof(void*) == cache_mem::link_size);

using memory_cache = muro::simple_item_cache<cache_mem>;

/// A piece of memory that views look at, with the number of references to it. Made with one
/// reference; whoever gives the last one up deletes the chunk. The count is changed with a full
/// barrier, from any thread; the rest never changes.
class chunk {
 public:
  virtual ~chunk() = default;

  /// Whether a view may write into the room at either end of its range. True only while there is
  /// no other reference; then all that other threads did with the memory through references given
  /// up since has happened before.
  virtual bool writable() const = 0;

  chunk(const chunk&) = delete;
  chunk& operator=(const chunk&) = delete;

  /// What `writable` answers, for the growth of a view, which asks each time.
  bool may_be_written() const noexcept { return references() < shared_from_; }

  /// One reference more; the caller has one already.
  void inc() noexcept { references_.fetch_add(1); }
  /// `n` references less, which the caller has. Returns whether they were the last: then the caller
  /// deletes the chunk. Nobody else can count when all there are are the caller's, so that case,
  /// the usual one, does without the barrier of a change.
  bool dec(std::int32_t n = 1) noexcept {
    return references() == n || references_.fetch_sub(n) == n;
  }
  std::int32_t references() const noexcept { return references_.load(); }

  char* memory() const noexcept { return memory_; }
  std::int32_t capacity() const noexcept { return capacity_; }

 protected:
  chunk(char* memory, std::int32_t capacity, memory_rights rights) noexcept
      : memory_(memory),
        capacity_(capacity),
        shared_from_(rights == memory_rights::writable ? 2 : 0) {}

 private:
  std::atomic<std::int32_t> references_{1};
  char* memory_;
  std::int32_t capacity_;
  // The number of references from which on nobody writes: 0 where nobody ever may.
  std::int32_t shared_from_;
};

/// A chunk that owns its memory: an item of the first size class that holds it, or a piece of the
/// general allocator's of the exact size. Its end gives the memory back to where it came from.
class nchunk final : public chunk {
 public:
  /// Memory for at least `n` bytes, `n` above 0. Throws `std::bad_alloc`.
  explicit nchunk(std::int32_t n);
  ~nchunk() override;
  bool writable() const override { return may_be_written(); }

  /// The cache that the memory came from; null when it came from the general allocator.
  memory_cache* cache() const { return cache_; }

 private:
  struct piece {
    char* memory;
    std::int32_t capacity;
    memory_cache* cache;
  };
  explicit nchunk(const piece& from) noexcept;
  static piece acquire(std::int32_t n);

  memory_cache* cache_;
};

/// A chunk over memory that a caller supplied. The memory must stay until the release function has
/// been called, on whichever thread gives up the last reference.
class cchunk final : public chunk {
 public:
  /// Calls `release` with `context` at its end, unless it is null.
  cchunk(char* memory, std::int32_t capacity, memory_rights rights, release_function release,
         void* context) noexcept
      : chunk(memory, capacity, rights), release_(release), context_(context) {}
  ~cchunk() override;
  bool writable() const override { return may_be_written(); }

 private:
  release_function release_;
  void* context_;
};

/// A range of a chunk's memory and one reference to the chunk. Copying a view shares the chunk.
class view {
 public:
  /// Takes over one reference that the caller has.
  view(chunk* owned, std::int32_t offset, std::int32_t length) noexcept
      : chunk_(owned), begin_(offset), end_(offset + length) {}
  view(const view& other) noexcept : chunk_(other.chunk_), begin_(other.begin_), end_(other.end_) {
    if (chunk_ != nullptr) chunk_->inc();
  }
  view(view&& other) noexcept : chunk_(other.chunk_), begin_(other.begin_), end_(other.end_) {
    other.release();
  }
  view& operator=(view other) noexcept {
    std::swap(chunk_, other.chunk_);
    std::swap(begin_, other.begin_);
    std::swap(end_, other.end_);
    return *this;
  }
  ~view() { dec(); }

  /// Gives the reference up; the last one deletes the chunk. The view is empty afterwards.
  void dec() noexcept {
    chunk* released = release();
    if (released != nullptr && released->dec()) delete released;
  }

  /// Hands the reference to the caller. The view is empty afterwards.
  chunk* release() noexcept {
    end_ = begin_;
    return std::exchange(chunk_, nullptr);
  }

  const char* data() const noexcept { return chunk_->memory() + begin_; }
  std::int32_t length() const noexcept { return end_ - begin_; }
  std::int32_t offset() const noexcept { return begin_; }
  const chunk* get_chunk() const noexcept { return chunk_; }

  /// The bytes free behind and before the view's range, into which it may grow; 0 when the chunk
  /// may not be written.
  std::int32_t room_behind() const noexcept {
    return chunk_->may_be_written() ? chunk_->capacity() - end_ : 0;
  }
  std::int32_t room_before() const noexcept { return chunk_->may_be_written() ? begin_ : 0; }
  std::int32_t room(end where) const noexcept {
    return where == end::back ? room_behind() : room_before();
  }

  /// Lengthens the view by `n` bytes of the room at that end; the address of those bytes.
  char* grow(std::int32_t n, end where) noexcept {
    const std::int32_t from = where == end::front ? begin_ -= n : std::exchange(end_, end_ + n);
    return chunk_->memory() + from;
  }

  /// Drops `n` bytes, fewer than the view has, at that end.
  void shrink(std::int32_t n, end where) noexcept {
    if (where == end::front) {
      begin_ += n;
    } else {
      end_ -= n;
    }
  }

 private:
  chunk* chunk_;
  // Offsets into the chunk's memory. Each end moves by itself.
  std::int32_t begin_;
  std::int32_t end_;
};
static_assert(sizeof(view) == 16);

/// Starts the caches: entry 28 of the built-in table. The first call in the process counts, later
/// ones do nothing.
void initialise(bool memory_checking, bool caching);

/// The size classes, ascending, and the cache of each; null before the initialisation and without
/// caching.
struct size_class {
  std::int32_t chunk_size;
  std::size_t items_per_batch;
  std::size_t batches;
};
inline constexpr size_class size_classes[] = {
    {128, 1000, 256}, {512, 500, 256}, {2048, 500, 64}, {8192, 150, 64}, {65536, 50, 32},
};
memory_cache* cache_of_class(std::size_t index);

/// A piece of memory from the general allocator, aligned for any type. Throws `std::bad_alloc`.
void* general_allocate(std::size_t bytes);
void general_free(void* memory) noexcept;

/// Installs the built-in table and, if no table was installed before, initialises it with memory
/// checking off and caching on. Returns whether it did. What a program without a host calls, once,
/// on the main thread, before the first `netbuf`; `muro::init` does it.
bool install_builtin();

}  // namespace netbuf_imp

/// The built-in operation table.
extern const netbuf_imp::operations netbuf_impl;
