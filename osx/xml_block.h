#pragma once

/// Where XML text is put together before it goes to its string.

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "osx/xml_writer.h"

namespace muro {

/// Collects text in a block on the stack and appends it to a string whenever the block is full, so
/// that a string of a few elements is allocated once, in its size. `finish` appends the rest: an
/// abandoned block is lost. Belongs to one thread.
class xml_block {
 public:
  /// `out` is not owned and outlives the block.
  explicit xml_block(std::string& out) : out_(out) {}
  xml_block(const xml_block&) = delete;
  xml_block& operator=(const xml_block&) = delete;

  /// Markup, written as it is.
  template <std::size_t size>
  void put(const char (&literal)[size]);
  /// UTF-8, escaped as `escape_xml_text` and `escape_xml_attribute` say.
  void put_escaped(std::string_view utf8, xml_escape_mode mode = xml_escape_mode::text);
  void finish();

 private:
  // Sixteen characters, each as its longest entity, and what a whole store writes behind the last.
  static constexpr std::size_t kRoom = 16 * 6 + 16;
  static constexpr std::size_t kSize = 1024;

  void make_room(std::size_t size = kRoom) {
    if (filled_ > kSize - size) finish();
  }
  template <xml_escape_mode mode>
  void escape(const unsigned char* at, const unsigned char* end);
  template <xml_escape_mode mode>
  void escape_ascii_run(const unsigned char* at);
  template <xml_escape_mode mode>
  const unsigned char* escape_each(const unsigned char* at, const unsigned char* stop,
                                   const unsigned char* end);

  std::string& out_;
  std::size_t filled_ = 0;
  char block_[kSize];
};

template <std::size_t size>
void xml_block::put(const char (&literal)[size]) {
  static_assert(size <= kSize);
  make_room(size);
  std::memcpy(block_ + filled_, literal, size - 1);
  filled_ += size - 1;
}

inline void xml_block::finish() {
  out_.append(block_, filled_);
  filled_ = 0;
}

}  // namespace muro
