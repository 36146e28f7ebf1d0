#pragma once

/// What the fuzz targets share: taking an input apart, and saying what must hold for every input.
///
/// A target is one function, called once for each input with bytes that it does not own:
///
///     extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
///
/// It gives 0, keeps nothing from one call to the next and ends the process when a property does
/// not hold. Who called it, libFuzzer or replay_main.cpp, then shows and keeps the input.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process with `property` unless it holds.
inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "property broken: %s\n", property);
  std::abort();
}

/// As `require`, and shows both sides.
inline void require_equal(std::string_view got, std::string_view wanted, const char* property) {
  if (got == wanted) return;
  const auto show = [](const char* name, std::string_view text) {
    std::fprintf(stderr, "%s (%zu bytes): ", name, text.size());
    for (const char c : text)
      std::fprintf(stderr, c >= ' ' && c < 0x7f ? "%c" : "\\x%02x", static_cast<unsigned char>(c));
    std::fputc('\n', stderr);
  };
  show("got", got);
  show("wanted", wanted);
  require(false, property);
}

/// Takes an input apart from its front. What is asked for beyond the end is 0 or empty.
class input {
 public:
  input(const std::uint8_t* data, std::size_t size)
      : left_(reinterpret_cast<const char*>(data), size) {}
  explicit input(std::string_view bytes) : left_(bytes) {}

  bool empty() const { return left_.empty(); }
  std::size_t size() const { return left_.size(); }

  std::uint8_t byte() {
    const std::string_view taken = bytes(1);
    return taken.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(taken[0]);
  }

  /// Two bytes, the low one first.
  unsigned number16() {
    const unsigned low = byte();
    return low | static_cast<unsigned>(byte()) << 8;
  }

  /// The next `count` bytes, or what is left.
  std::string_view bytes(std::size_t count) {
    const std::string_view taken = left_.substr(0, count);
    left_.remove_prefix(taken.size());
    return taken;
  }

  /// What stands before the next `end`, which is taken too, or all that is left. Seeds that are
  /// made of lines stay readable.
  std::string_view until(char end) {
    const std::size_t at = left_.find(end);
    const std::string_view taken = bytes(at);
    if (at != std::string_view::npos) left_.remove_prefix(1);
    return taken;
  }

  std::string_view rest() { return bytes(left_.size()); }

 private:
  std::string_view left_;
};

}  // namespace fuzz
