/// UTF-8 to UTF-32 and back, beside other converters. What is ill-formed is dropped on the way
/// there, and U+FFFD on the way back.

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "bench/support.h"
#include "osx/unicode.h"

#ifdef KORVEL_BENCH_ICU
#include <unicode/utf8.h>
#endif
#ifdef KORVEL_BENCH_LLVM
#include <llvm/Support/ConvertUTF.h>
#endif
#ifdef KORVEL_BENCH_UTFCPP
#include <utf8.h>
#endif

namespace {

constexpr std::size_t kSize = 65536;
constexpr unsigned int kReplacement = 0xFFFD;

std::string repeated(const std::string& piece) {
  std::string text;
  while (text.size() + piece.size() <= kSize) text += piece;
  return text;
}

struct input {
  const char* name;
  std::string text;
};

const std::vector<input>& inputs() {
  static const std::vector<input> made = {
      {"path", "/Library/Application Support/Korvel/0123456789/app/Korv\xC3\xA9l.app"},
      {"ascii", repeated("The quick brown fox jumps over the lazy dog. ")},
      {"latin", repeated("Zw\xC3\xB6lf Boxk\xC3\xA4mpfer jagen Viktor quer \xC3\xBC"
                         "ber den Sylter Deich. D\xC3\xA9j\xC3\xA0 vu. ")},
      {"cjk", repeated("\xE5\xA4\xA9\xE5\x9C\xB0\xE7\x8E\x84\xE9\xBB\x84\xE5\xAE\x87\xE5\xAE\x99"
                       "\xE6\xB4\xAA\xE8\x8D\x92")},
      {"emoji", repeated("\xF0\x9F\x98\x80\xF0\x9F\x9A\x80\xF0\x9F\x8E\x89\xF0\x9F\x91\x8D")},
      // A byte that nothing starts with, a stray continuation, an overlong form, a surrogate, a
      // sequence broken off by a letter; the last one is cut short.
      {"broken", repeated("file \xFF name \x80 with \xC0\xAF bro\xED\xA0\x80ken \xE5\xA4"
                          "bytes ") +
                     "\xF0\x9F\x98"},
  };
  return made;
}

/// Where the contenders put what they make: room for the longest outcome.
std::vector<unsigned int>& code_points() {
  static std::vector<unsigned int> room(kSize);
  return room;
}
std::vector<unsigned char>& bytes() {
  static std::vector<unsigned char> room(4 * kSize);
  return room;
}

const unsigned char* unsigned_data(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Ours hands over block by block, and has no other form. The blocks are used where they are.
struct ours {
  static void decode(const std::string& text) {
    xstd::llvm_convert_utf8_to_native_utf32(
        unsigned_data(text), text.size(),
        [](void*, const unsigned int* made, std::size_t) { benchmark::DoNotOptimize(*made); },
        nullptr);
  }
  static void encode(const std::vector<unsigned int>& text) {
    xstd::llvm_convert_native_utf32_to_utf8(
        text.data(), text.size(),
        [](void*, const unsigned char* made, std::size_t) { benchmark::DoNotOptimize(*made); },
        nullptr);
  }
};

std::vector<unsigned int> decoded(const std::string& text) {
  std::vector<unsigned int> all;
  xstd::llvm_convert_utf8_to_native_utf32(
      unsigned_data(text), text.size(),
      [](void* to, const unsigned int* made, std::size_t count) {
        auto& out = *static_cast<std::vector<unsigned int>*>(to);
        out.insert(out.end(), made, made + count);
      },
      &all);
  return all;
}

std::string encoded(const std::vector<unsigned int>& text) {
  std::string all;
  xstd::llvm_convert_native_utf32_to_utf8(
      text.data(), text.size(),
      [](void* to, const unsigned char* made, std::size_t length) {
        static_cast<std::string*>(to)->append(reinterpret_cast<const char*>(made), length);
      },
      &all);
  return all;
}

/// The way back: what the way there gave; for the broken bytes with a value in every eighth place
/// that is no character.
std::vector<unsigned int> back_input(const input& from) {
  std::vector<unsigned int> text = decoded(from.text);
  if (std::strcmp(from.name, "broken") != 0) return text;
  for (std::size_t i = 0; i < text.size(); i += 8) text[i] = 0x110000;
  return text;
}

#ifdef KORVEL_BENCH_ICU
/// By its macros, which are its fastest way and skip what is ill-formed.
struct icu {
  static std::size_t decode(const std::string& text) {
    const auto* const source = unsigned_data(text);
    const auto length = static_cast<std::int32_t>(text.size());
    unsigned int* out = code_points().data();
    for (std::int32_t i = 0; i < length;) {
      UChar32 c;
      U8_NEXT(source, i, length, c);
      if (c >= 0) *out++ = static_cast<unsigned int>(c);
    }
    return static_cast<std::size_t>(out - code_points().data());
  }
  static std::size_t encode(const std::vector<unsigned int>& text) {
    unsigned char* const out = bytes().data();
    std::int32_t length = 0;
    for (const unsigned int c : text) {
      const unsigned int valid = c > 0x10FFFF || U_IS_SURROGATE(c) ? kReplacement : c;
      U8_APPEND_UNSAFE(out, length, valid);
    }
    return static_cast<std::size_t>(length);
  }
};
#endif

#ifdef KORVEL_BENCH_LLVM
/// In its strict mode, which stops at what is ill-formed; the lenient one here puts U+FFFD there.
struct convert_utf {
  static std::size_t decode(const std::string& text) {
    const llvm::UTF8* source = unsigned_data(text);
    const llvm::UTF8* const end = source + text.size();
    llvm::UTF32* out = code_points().data();
    while (llvm::ConvertUTF8toUTF32(&source, end, &out, out + kSize, llvm::strictConversion) ==
           llvm::sourceIllegal) {
      ++source;
    }
    return static_cast<std::size_t>(out - code_points().data());
  }
  static std::size_t encode(const std::vector<unsigned int>& text) {
    const llvm::UTF32* source = text.data();
    llvm::UTF8* out = bytes().data();
    llvm::ConvertUTF32toUTF8(&source, source + text.size(), &out, out + bytes().size(),
                             llvm::lenientConversion);
    return static_cast<std::size_t>(out - bytes().data());
  }
};
#endif

#ifdef KORVEL_BENCH_UTFCPP
/// All at once where it is well-formed, else what lies between the ill-formed bytes.
struct utfcpp {
  static unsigned int* decode_between(const char* at, const char* end, unsigned int* out) {
    while (at != end) {
      const char* const valid_end = utf8::find_invalid(at, end);
      out = utf8::unchecked::utf8to32(at, valid_end, out);
      at = valid_end == end ? end : valid_end + 1;
    }
    return out;
  }
  static std::size_t decode(const std::string& text) {
    const char* const end = text.data() + text.size();
    unsigned int* const out = code_points().data();
    try {
      return static_cast<std::size_t>(utf8::utf8to32(text.data(), end, out) - out);
    } catch (const utf8::exception&) {
      return static_cast<std::size_t>(decode_between(text.data(), end, out) - out);
    }
  }
  static std::size_t encode(const std::vector<unsigned int>& text) {
    unsigned char* out = bytes().data();
    for (const unsigned int c : text) {
      out = utf8::unchecked::append(utf8::internal::is_code_point_valid(c) ? c : kReplacement, out);
    }
    return static_cast<std::size_t>(out - bytes().data());
  }
};
#endif

template <class Peer>
bool agrees_on(const std::string& text) {
  const std::vector<unsigned int> wanted = decoded(text);
  return Peer::decode(text) == wanted.size() &&
         std::equal(wanted.begin(), wanted.end(), code_points().begin());
}
template <class Peer>
bool agrees_on(const std::vector<unsigned int>& text) {
  const std::string wanted = encoded(text);
  return Peer::encode(text) == wanted.size() &&
         std::memcmp(wanted.data(), bytes().data(), wanted.size()) == 0;
}

template <class Contender>
void add_contender(const char* name) {
  constexpr bool is_ours = std::is_same_v<Contender, ours>;
  for (const input& from : inputs()) {
    bench::add(std::string("utf8/") + from.name, name, [&from](benchmark::State& state) {
      if constexpr (!is_ours) {
        if (!agrees_on<Contender>(from.text)) return state.SkipWithError("wrong: other characters");
      }
      for (auto _ : state) Contender::decode(from.text), benchmark::ClobberMemory();
    });
    bench::add(std::string("utf32/") + from.name, name, [&from](benchmark::State& state) {
      const std::vector<unsigned int> text = back_input(from);
      if constexpr (!is_ours) {
        if (!agrees_on<Contender>(text)) return state.SkipWithError("wrong: other bytes");
      }
      for (auto _ : state) Contender::encode(text), benchmark::ClobberMemory();
    });
  }
}

[[maybe_unused]] void add_missing(const char* name) {
  for (const input& from : inputs()) {
    bench::add_missing(std::string("utf8/") + from.name, name);
    bench::add_missing(std::string("utf32/") + from.name, name);
  }
}

}  // namespace

int main(int argc, char** argv) {
  add_contender<ours>("ours");
#ifdef KORVEL_BENCH_ICU
  add_contender<icu>("ICU");
#else
  add_missing("ICU");
#endif
#ifdef KORVEL_BENCH_LLVM
  add_contender<convert_utf>("ConvertUTF");
#else
  add_missing("ConvertUTF");
#endif
#ifdef KORVEL_BENCH_UTFCPP
  add_contender<utfcpp>("utfcpp");
#else
  add_missing("utfcpp");
#endif
  return bench::run(argc, argv);
}
