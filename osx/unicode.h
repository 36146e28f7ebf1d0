#pragma once

/// Streaming conversion between UTF-8 and UTF-32 in native byte order.

#include <cstddef>

namespace xstd {

/// Receives each converted run of code points as it is produced.
using utf32_callback = void (*)(void* context, const unsigned int* code_points, std::size_t count);
/// Receives each converted run of UTF-8 bytes as it is produced.
using utf8_callback = void (*)(void* context, const unsigned char* bytes, std::size_t length);

void llvm_convert_utf8_to_native_utf32(const unsigned char* utf8, std::size_t length,
                                       utf32_callback callback, void* context);
void llvm_convert_native_utf32_to_utf8(const unsigned int* utf32, std::size_t count,
                                       utf8_callback callback, void* context);

}  // namespace xstd
