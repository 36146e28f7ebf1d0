// A target whose properties are that an input holds none of these words.

#include <csignal>

#include "fuzz/target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::input in(data, size);
  const std::string_view text = in.rest();
  fuzz::require_equal(text == "unequal" ? "a\nb" : "a", "a", "both are the same");
  fuzz::require(text.find("abort") == std::string_view::npos, "no abort");
  if (text.find("crash") != std::string_view::npos) std::raise(SIGSEGV);
  return 0;
}
