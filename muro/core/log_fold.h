#pragma once

/// Folds a line that repeats the one before it into a counter, so that a component which logs the
/// same line for ever does not fill the disk.
///
///     2024-02-29T12:00:00Z main: it is raining        the line
///     2024-02-29T12:00:07Z -          2 -             its marker: two repeats, the last at :07
///
/// The first repeat appends a marker, each later one overwrites it in place.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace muro {

class log_folder {
 public:
  /// What to write, and how many bytes before the end of the file to write it. `bytes` is the line
  /// itself or the folder's marker, valid until the next call.
  struct output {
    std::string_view bytes;
    std::size_t step_back;
  };

  /// A line is a repeat when length, prefix length and all behind the prefix equal those of the
  /// line before it, and it is long enough to be no shorter than its marker: prefix + 17 bytes.
  output fold(std::string_view line, std::size_t prefix_length);

  /// Forgets the line before, so that the next one is written in full.
  void forget();

  /// The size of the buffer that keeps the line before: 64 KiB, or more while that line is longer.
  std::size_t capacity() const { return capacity_; }

 private:
  bool is_repeat(std::string_view line, std::size_t prefix_length) const;
  void remember(std::string_view line, std::size_t prefix_length);
  output marker(std::string_view prefix);

  std::unique_ptr<char[]> line_;  // null: no line is remembered
  std::size_t capacity_ = 0;
  std::size_t length_ = 0;
  std::size_t prefix_length_ = 0;
  std::uint32_t repeats_ = 0;
  std::string marker_;
};

}  // namespace muro
