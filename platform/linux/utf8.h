#pragma once

/// UTF-8 as RFC 3629 has it: shortest forms only, no surrogates, nothing above U+10FFFF.

#include <cstdint>
#include <string>

namespace platform {

/// Whether the whole of `text` is well-formed.
bool is_utf8(const std::string& text);

/// Appends the code point; false, with nothing appended, for a surrogate or one above U+10FFFF.
bool append_utf8(std::string& out, std::uint32_t code);

}  // namespace platform
