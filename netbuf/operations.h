#pragma once

/// The operation table behind `netbuf`: what a host supplies that wants its own byte buffers, and
/// what the built-in implementation supplies otherwise.
///
/// The table is an array of 29 pointers; `operations` is that array with a type for each entry, so
/// that it can be written and called without casts (`netbuf::install(table)` takes it as it is).
/// For a host in C: the enumerations are `int32_t`, `bool` is `_Bool`, a null `release` is
/// allowed where one is taken, and the calling convention is the platform's.
///
/// Common to all entries:
/// - `self` and `other` are the implementation's own objects, as its entries 2 and 3 returned them;
///   never null. Where both are given they may be one and the same.
/// - Lengths are signed 32-bit; 0x7fffffff means everything. A length below 1 is an operation on
///   nothing: it changes nothing and gives null, 0 or "not found".
/// - A total length beyond 0x7fffffff is refused with `std::length_error`, exhausted memory with
///   `std::bad_alloc`; both leave every object as it was. No other failure exists. Entries 1, 4,
///   10, 12, 13 and 16 to 19 never throw.
/// - One object is used by one thread at a time; different objects on different threads may share
///   memory, which the implementation has to keep safe.
///
/// `netbuf` itself calls entries 1 to 5, 7, 9, 10, 11 and 28. The rest is for code that works on
/// the installed table directly: `netbuf_imp::installed_operations` with `netbuf::object`.

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace netbuf_imp {

enum class end : std::int32_t { front = 0, back = 1 };
enum class after_copy : std::int32_t { keep = 0, remove = 1 };
enum class memory_rights : std::int32_t { writable = 0, read_only = 1 };

/// A position among the stretches of contiguous memory that a buffer consists of: a record of the
/// caller's that an implementation uses as it likes; nothing has to be released. Any change of the
/// buffer, a pull-up included, makes it invalid.
struct iterator {
  const void* buffer;
  std::uintptr_t position;
  std::uintptr_t reserved[2];
};

/// Called with its context when the last buffer that looks at the caller's memory lets it go, on
/// whichever thread that happens. Must not throw.
using release_function = void (*)(void* context);

inline constexpr int operation_count = 29;

struct operations {
  /// 0: initialisation with memory checking false and caching true.
  void (*init_default)();

  /// 1: lets go of all that `self` holds and ends it.
  void (*destroy)(void* self);

  /// 2: a new empty object.
  void* (*create)();

  /// 3: a new object that shares `length` bytes of `other` from `offset` on, cut to what `other`
  /// has: a negative offset counts as 0, an offset at or past the end gives an empty object.
  void* (*create_range)(const void* other, std::int32_t offset, std::int32_t length);

  /// 4: the number of bytes held.
  std::int32_t (*size)(const void* self);

  /// 5: adds the whole content of `other` at one end, sharing its memory.
  void (*add)(void* self, const void* other, end where);

  /// 6: adds the caller's `length` bytes at `memory` at one end without copying them. The memory
  /// belongs to the buffers from then on: it must stay valid until `release` (null for none) is
  /// called with `context`. Writable memory must not be touched by the caller meanwhile: once its
  /// bytes are erased from a buffer that alone holds it, later growth may be written there. With
  /// `length` below 1 nothing is added and `release` is called at once; when the entry throws,
  /// the memory stays the caller's and `release` is not called.
  void (*add_memory)(void* self, char* memory, std::int32_t length, end where, memory_rights rights,
                     release_function release, void* context);

  /// 7: grows by `n` bytes at one end; the address of the new, uninitialised bytes.
  char* (*allocate)(void* self, std::int32_t n, end where);

  /// 8: grows by at least `minimum` and at most `maximum` bytes at one end, by as many as are
  /// there without further cost: the room in the end chunk when that is at least `minimum`, else
  /// a new chunk that is made as entry 7 makes one for `minimum`. Returns the address of the new
  /// bytes and their number in `length`; what is not used is erased again by the caller. A maximum
  /// below the minimum counts as the minimum.
  char* (*allocate_some)(void* self, std::int32_t minimum, std::int32_t maximum, end where,
                         std::int32_t* length);

  /// 9: pull-up. Makes the front of the content contiguous as far as `limit` asks and it pays, and
  /// returns the address and (in `length`) the number of the bytes that are contiguous there: all
  /// of them when the content is not longer than `limit`, else possibly more or fewer than
  /// `limit`. Null and 0 for an empty buffer. The bytes may be shared: read only.
  const char* (*pull_up)(void* self, std::int32_t limit, std::int32_t* length);

  /// 10: drops `n` bytes at one end; all of them when there are not more.
  void (*erase)(void* self, std::int32_t n, end where);

  /// 11: copies the first or last min(`n`, size) bytes to `dest`, in the order in which they stand
  /// in the buffer, and returns their number. With `remove` they are dropped afterwards.
  std::int32_t (*copy_out)(void* self, char* dest, std::int32_t n, end where, after_copy then);

  /// 12: does nothing.
  void (*no_operation)();

  /// 13: frees a block of entry 14 or 20; null is let pass.
  void (*block_free)(void* block);

  /// 14: a block of `size` bytes for the caller's own use, aligned for any type; uninitialised, or
  /// zeros with memory checking on.
  void* (*block_allocate)(std::int32_t size);

  /// 15: sets `position` to the first stretch of `self`.
  void (*iterator_begin)(const void* self, iterator* position);

  /// 16: makes `to` a second position like `from`.
  void (*iterator_copy)(const iterator* from, iterator* to);

  /// 17: whether `position` is on a stretch, not at the end.
  bool (*iterator_valid)(const iterator* position);

  /// 18: the address and length of the stretch at `position`; null and 0 at the end.
  const char* (*iterator_current)(const iterator* position, std::int32_t* length);

  /// 19: goes to the next stretch; nothing at the end.
  void (*iterator_next)(iterator* position);

  /// 20: as entry 14, for callers that cannot catch: gives null when memory is exhausted.
  void* (*block_try_allocate)(std::int32_t size);

  /// 21: forwards to entry 9 with the limit 0x7fffffff: the whole content, contiguous.
  const char* (*pull_up_all)(void* self, std::int32_t* length);

  /// 22: never installed and never called.
  void* not_installed;

  /// 23: the index of the first byte equal to `byte` within the first `n` bytes, or -1.
  std::int32_t (*find)(const void* self, char byte, std::int32_t n);

  /// 24: compares the first `n` bytes with the `n` bytes at `data` as unsigned bytes: -1 when the
  /// buffer's are less, 0 when equal, 1 when greater. A buffer that holds fewer than `n` bytes,
  /// all equal to the beginning of `data`, is less.
  std::int32_t (*compare)(const void* self, const char* data, std::int32_t n);

  /// 25: moves the whole content of `other` to the back of `self`; `other` is empty afterwards.
  /// Nothing when both are one.
  void (*take_back)(void* self, void* other);

  /// 26: the same at the front of `self`.
  void (*take_front)(void* self, void* other);

  /// 27: initialisation with caching true and the flag given.
  void (*init_checking)(bool memory_checking);

  /// 28: initialisation. `netbuf::init` calls it.
  void (*init)(bool memory_checking, bool caching);

  /// The table as `netbuf::install` takes it; it is only read from.
  operator void**() const { return reinterpret_cast<void**>(const_cast<operations*>(this)); }
};
static_assert(sizeof(operations) == operation_count * sizeof(void*));

/// The installed table, with null for entry 22. Before a table is installed its entries throw
/// `std::logic_error` "netbuf: no operation table is installed".
const operations& installed_operations();

/// `bytes` as a length. Throws `std::length_error` "netbuf: too long" beyond 0x7fffffff.
inline std::int32_t checked_length(std::size_t bytes) {
  if (bytes > 0x7fffffff) throw std::length_error("netbuf: too long");
  return static_cast<std::int32_t>(bytes);
}

}  // namespace netbuf_imp
