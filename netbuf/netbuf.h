#pragma once

/// `netbuf`: a sequence of bytes that grows and shrinks cheaply at both ends and whose copies share
/// memory. Wire messages are built and parsed in it.
///
///     netbuf a:   [ view ][   view   ][ view ]       a view is a stretch of a chunk's memory
///                    |         |         |
///     chunks:     |..xxxx| |xxxxxxxxxx| |xxxx....|   dots: room that the end views may grow into
///                              |
///     netbuf b:            [ view ]                  a copy or sub-range shares the chunk
///
/// A chunk that more than one view looks at is never written through, so a change of one buffer
/// never shows in another.
///
/// The class is a thin handle: one pointer to an object that only the operation table knows
/// (netbuf/operations.h). The table is process-wide, a host's or the built-in one
/// (netbuf/netbuf_imp.h); it must be installed and initialised, on the main thread, before the
/// first `netbuf` is made. `muro::init` does both. Making a buffer, or initialising, before a table
/// is installed throws `std::logic_error` "netbuf: no operation table is installed". What is done
/// most is inline here and goes past the built-in table, straight to its object.
///
/// Sizes, counts and offsets are signed 32-bit; 0x7fffffff means "everything". A change that would
/// make a buffer longer than 0x7fffffff bytes throws `std::length_error` "netbuf: too long";
/// exhausted memory throws `std::bad_alloc`. After either the buffer holds what it held before.
///
/// Threads: a `netbuf` object is used by one thread at a time, reading included (`to_string`
/// rearranges the memory). Buffers on different threads may share chunks.

#include <cstdint>
#include <string>

#include "netbuf/buffer.h"

class netbuf {
 public:
  /// How the installed table is initialised.
  struct init_args {
    /// Memory taken from the general allocator is filled with zeros.
    bool memory_checking;
    /// Chunk memory is recycled through one cache for each size class.
    bool caching;
  };

  /// The length that means "everything".
  static constexpr std::int32_t everything = 0x7fffffff;

  /// Installs a table of 29 operations laid out as `netbuf_imp::operations`: copies its entries 0
  /// to 21 and 23 to 28 and returns true. Returns false and changes nothing when a table is
  /// installed already, or when `table` is null. Main thread, before any other use.
  static bool install(void** table);

  /// Initialises the installed table (its entry 28). With the built-in table the first call in the
  /// process counts and later ones do nothing; before any, buffers work without caches.
  static void init(const init_args& args);

  /// An empty buffer.
  netbuf();

  /// Shares the whole content of `other`.
  netbuf(const netbuf& other);

  /// Takes the content of `other` over and leaves it empty. No object is made for `other` until
  /// something is put into it again.
  netbuf(netbuf&& other) noexcept;

  /// Shares `length` bytes of `other` from `offset` on. An offset below 0 counts as 0; a range
  /// that reaches past the end stops there; one that starts there or later is empty, and so is one
  /// with a length below 1.
  netbuf(const netbuf& other, std::int32_t offset, std::int32_t length);

  /// Lets the current content go and shares the whole of `other`'s. Assigning a buffer to itself
  /// changes nothing.
  netbuf& operator=(const netbuf& other);

  /// Lets the current content go and takes `other`'s over, as the constructor does.
  netbuf& operator=(netbuf&& other) noexcept;

  ~netbuf();

  /// The number of bytes held.
  std::int32_t size() const;

  /// Appends the content of `other`, sharing its chunks. `other` may be this buffer.
  void append(const netbuf& other);

  /// The same, but takes the content over and leaves `other` empty, which spares the sharing.
  /// Appending a buffer to itself this way changes nothing.
  void append(netbuf&& other);

  /// Appends a copy of the bytes of `s`.
  void append(const std::string& s);

  /// Grows the buffer by `n` bytes at its end or front and returns the address of the new bytes,
  /// which are not set: the caller fills them at once, before anything else is done with this
  /// buffer. The address has no alignment. With `n` below 1 nothing happens and null is returned.
  char* allocate_back(std::int32_t n);
  char* allocate_front(std::int32_t n);

  /// Drops `n` bytes at that end, all of them when there are not more. Nothing with `n` below 1.
  void erase_front(std::int32_t n);
  void erase_back(std::int32_t n);

  /// Copies the first min(`n`, size) bytes to `dest` and returns their number; they stay in the
  /// buffer. With `n` below 1 nothing is copied and 0 returned.
  std::int32_t copy_front(char* dest, std::int32_t n) const;

  /// The content as a string. Makes the memory of the whole content contiguous on the way.
  std::string to_string() const;

  /// The implementation's object behind this buffer, for the operations that only the table has
  /// (`netbuf_imp::installed_operations`). It stays this buffer's.
  void* object();

 private:
  // The object, when it is the built-in table's: the outcome is the same as through the table. Null
  // when there is none or it is a host's.
  netbuf_imp::buffer* built_in() const noexcept {
    return built_in_installed_ ? static_cast<netbuf_imp::buffer*>(object_) : nullptr;
  }

  static void* empty_object();
  void* share() const;
  void* share(std::int32_t offset, std::int32_t length) const;
  char* allocate_by_table(std::int32_t n, netbuf_imp::end where);
  void erase_by_table(std::int32_t n, netbuf_imp::end where);
  std::int32_t copy_front_by_table(char* dest, std::int32_t n) const;

  // Whether the installed table is the built-in one in every entry; `install` sets it.
  static bool built_in_installed_;

  // Null for an empty buffer whose object is not made yet: after the content was moved away, and
  // from the start with the built-in table.
  void* object_;
};

inline char* netbuf::allocate_back(std::int32_t n) {
  if (netbuf_imp::buffer* const self = built_in()) return self->allocate(n, netbuf_imp::end::back);
  return allocate_by_table(n, netbuf_imp::end::back);
}

inline char* netbuf::allocate_front(std::int32_t n) {
  if (netbuf_imp::buffer* const self = built_in()) return self->allocate(n, netbuf_imp::end::front);
  return allocate_by_table(n, netbuf_imp::end::front);
}

inline void netbuf::erase_front(std::int32_t n) {
  if (netbuf_imp::buffer* const self = built_in()) return self->erase(n, netbuf_imp::end::front);
  erase_by_table(n, netbuf_imp::end::front);
}

inline void netbuf::erase_back(std::int32_t n) {
  if (netbuf_imp::buffer* const self = built_in()) return self->erase(n, netbuf_imp::end::back);
  erase_by_table(n, netbuf_imp::end::back);
}

inline std::int32_t netbuf::copy_front(char* dest, std::int32_t n) const {
  if (const netbuf_imp::buffer* const self = built_in()) return self->copy_front(dest, n);
  return copy_front_by_table(dest, n);
}
