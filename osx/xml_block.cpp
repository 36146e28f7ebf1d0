#include "osx/xml_block.h"

#include <array>
#include <cstdint>

#include "osx/unicode_runs.h"
#include "osx/unicode_sequence.h"

namespace muro {
namespace {

bool is_between(unsigned int code_point, unsigned int first, unsigned int last) {
  return code_point >= first && code_point <= last;
}

// Deliberate: U+007F is dropped and U+0085 kept, and of the noncharacters U+FDD0 to U+FDEF only the
// first sixteen are dropped; the allowed ranges are a fixed list, not a rule about character kinds.
constexpr bool is_allowed_ascii(unsigned int code_point) {
  return (code_point >= 0x20 && code_point <= 0x7E) || code_point == 0x09 || code_point == 0x0A ||
         code_point == 0x0D;
}
bool is_allowed_beyond_ascii(unsigned int code_point) {
  if (is_between(code_point, 0x10000, 0x10FFFF)) return (code_point & 0xFFFE) != 0xFFFE;
  return is_between(code_point, 0xA0, 0xD7FF) || is_between(code_point, 0xE000, 0xFDCF) ||
         is_between(code_point, 0xFDE0, 0xFFFD) || code_point == 0x85;
}

/// What an ASCII character is written as: nothing, itself or an entity. Copied as a whole, of which
/// `length` bytes count.
struct replacement {
  char text[7];
  unsigned char length;
};
using replacements = std::array<replacement, 0x80>;

// Deliberate: the apostrophe has no entity in either mode.
constexpr std::string_view written_form(const char& c, xml_escape_mode mode) {
  if (c == '&') return "&amp;";
  if (c == '<') return "&lt;";
  if (c == '>') return "&gt;";
  if (c == '"' && mode == xml_escape_mode::attribute) return "&quot;";
  return {&c, is_allowed_ascii(static_cast<unsigned int>(c)) ? 1u : 0u};
}

constexpr replacements replacements_for(xml_escape_mode mode) {
  replacements all{};
  for (std::size_t i = 0; i < all.size(); ++i) {
    const char c = static_cast<char>(i);
    const std::string_view form = written_form(c, mode);
    for (std::size_t n = 0; n < form.size(); ++n) all[i].text[n] = form[n];
    all[i].length = static_cast<unsigned char>(form.size());
  }
  return all;
}

template <xml_escape_mode mode>
constexpr replacements kReplacements = replacements_for(mode);

}  // namespace

// Writes 16 ASCII characters one at a time, as below, but in one go: none is asked whether it is
// ASCII or the last one.
template <xml_escape_mode mode>
void xml_block::escape_ascii_run(const unsigned char* at) {
  char* to = block_ + filled_;
#pragma GCC unroll 16
  for (std::size_t i = 0; i < xstd::kRun; ++i) {
    const replacement written = kReplacements<mode>[at[i]];
    std::memcpy(to, &written, sizeof written);
    to += written.length;
  }
  filled_ = static_cast<std::size_t>(to - block_);
}

// Writes the characters that begin before `stop`, at most 16 bytes away, one at a time, and returns
// where the next begins. A sequence cut short by the end of the text is dropped.
template <xml_escape_mode mode>
const unsigned char* xml_block::escape_each(const unsigned char* at, const unsigned char* stop,
                                            const unsigned char* end) {
  char* to = block_ + filled_;
  while (at < stop) {
    if (*at < 0x80) {
      const replacement written = kReplacements<mode>[*at++];
      std::memcpy(to, &written, sizeof written);
      to += written.length;
      continue;
    }
    const xstd::sequence next = xstd::read_sequence(at, static_cast<std::size_t>(end - at));
    if (next.length == xstd::sequence::kTruncated) {
      at = end;
    } else if (next.length == xstd::sequence::kIllegal) {
      ++at;
    } else {
      const std::size_t length = static_cast<std::size_t>(next.length);
      std::memcpy(to, at, length);
      if (is_allowed_beyond_ascii(next.code_point)) to += length;
      at += length;
    }
  }
  filled_ = static_cast<std::size_t>(to - block_);
  return at;
}

template <xml_escape_mode mode>
void xml_block::escape(const unsigned char* at, const unsigned char* end) {
  constexpr bool kQuote = mode == xml_escape_mode::attribute;
  while (at != end) {
    make_room();
    char* const to = block_ + filled_;
    const std::size_t left = static_cast<std::size_t>(end - at);
    const std::size_t run = left < xstd::kRun ? left : xstd::kRun;
    if (run == xstd::kRun ? xstd::copy_plain_xml<kQuote>(at, to)
                          : xstd::copy_short_plain_xml<kQuote>(at, run, to)) {
      filled_ += run;
      at += run;
    } else if (run == xstd::kRun && xstd::is_ascii_run(at)) {
      escape_ascii_run<mode>(at);
      at += xstd::kRun;
    } else {
      at = escape_each<mode>(at, at + run, end);
    }
  }
}

void xml_block::put_escaped(std::string_view utf8, xml_escape_mode mode) {
  const auto* const at = reinterpret_cast<const unsigned char*>(utf8.data());
  if (mode == xml_escape_mode::text) {
    escape<xml_escape_mode::text>(at, at + utf8.size());
  } else {
    escape<xml_escape_mode::attribute>(at, at + utf8.size());
  }
}

}  // namespace muro
