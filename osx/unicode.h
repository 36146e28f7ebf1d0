#pragma once

/// Streaming conversion between UTF-8 and UTF-32 in native byte order.
///
/// Both converters read their input once, keep one fixed block on the stack, and hand every block
/// to the callback before they produce the next; a callback never sees an empty run. They accept
/// exactly the well-formed sequences of the Unicode Standard (section 3.9, table 3-7), as the
/// Consortium's reference conversion does in its lenient mode, and they repair the rest instead of
/// failing. No state is kept between calls; any thread may call them.

#include <cstddef>

namespace xstd {

/// Receives each converted run of code points as it is produced. `code_points` is valid during the
/// call only.
using utf32_callback = void (*)(void* context, const unsigned int* code_points, std::size_t count);
/// Receives each converted run of UTF-8 bytes as it is produced. `bytes` is valid during the call
/// only.
using utf8_callback = void (*)(void* context, const unsigned char* bytes, std::size_t length);

/// Converts `length` bytes of UTF-8, in blocks of 256 code points.
///
/// An ill-formed sequence (a stray continuation byte, an overlong form, an encoded surrogate, a
/// value beyond U+10FFFF, a sequence broken off by another byte) loses its first byte, and
/// conversion resumes at the byte after it. A sequence cut short by the end of the input is
/// dropped.
///
/// Throws `muro::exception` ":Error in 'convert'" if the conversion step behind it ever breaks its
/// own contract, and whatever `callback` throws.
void llvm_convert_utf8_to_native_utf32(const unsigned char* utf8, std::size_t length,
                                       utf32_callback callback, void* context);

/// Converts `count` code points to the shortest form of UTF-8, in blocks of 1024 bytes; no sequence
/// is split between two runs. What is no Unicode scalar value (a surrogate, a value beyond
/// U+10FFFF) has no UTF-8 form and becomes U+FFFD, the replacement character. Throws as above.
void llvm_convert_native_utf32_to_utf8(const unsigned int* utf32, std::size_t count,
                                       utf8_callback callback, void* context);

}  // namespace xstd
