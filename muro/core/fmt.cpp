#include "muro/core/fmt.h"

#include <emmintrin.h>

#include <bit>

namespace muro {

namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

/// Reads the digits at `at`. Stops counting where no argument is any more, so that no number of
/// digits is too many.
std::size_t read_number(const char*& at, const char* end) {
  constexpr std::size_t kEnough = 100000000;
  std::size_t number = 0;
  for (; at != end && is_digit(*at); ++at) {
    number = std::min(number * 10 + static_cast<std::size_t>(*at - '0'), kEnough);
  }
  return number;
}

/// Copies a template and what is put between its literals into `text`, whose room was made before.
/// There is always room for what is left of the template: literals are not checked for fitting.
class filling {
 public:
  filling(std::string_view tmpl, std::string& text)
      : at_(tmpl.data()),
        end_(tmpl.data() + tmpl.size()),
        text_(text),
        out_(text.data()),
        room_end_(text.data() + text.size()) {}

  /// Copies up to the next "%"; false when there is none.
  bool copy_literal() {
    while (left() >= 16) {
      if (!copy_block<16>()) return true;
    }
    if (left() >= 8 && !copy_block<8>()) return true;
    while (at_ != end_ && *at_ != '%') *out_++ = *at_++;
    return at_ != end_;
  }

  /// Reads a placeholder that begins here and goes behind it; false when there is none.
  bool read_placeholder(std::size_t& number) {
    const char* at = at_ + 1;
    number = read_number(at, end_);
    if (at == at_ + 1 || at == end_ || *at != '%') return false;
    at_ = at + 1;
    return true;
  }

  /// "%%" is one "%", and so is a "%" that begins no placeholder.
  void copy_percent() {
    *out_++ = '%';
    ++at_;
    if (at_ != end_ && *at_ == '%') ++at_;
  }

  void put(std::string_view value) {
    const std::size_t needed = value.size() + left();
    if (needed > static_cast<std::size_t>(room_end_ - out_)) make_room(needed);
    copy(value.data(), value.size());
    out_ += value.size();
  }

  void finish() { text_.resize(used()); }

 private:
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  std::size_t used() const { return static_cast<std::size_t>(out_ - text_.data()); }

  /// Copies up to the first "%" of `size` characters, 16 or 8, with SSE2, which every x86-64
  /// processor has; false when there is one.
  template <int size>
  bool copy_block() {
    const auto* const from = reinterpret_cast<const __m128i*>(at_);
    auto* const to = reinterpret_cast<__m128i*>(out_);
    __m128i block;
    if constexpr (size == 16) {
      _mm_storeu_si128(to, block = _mm_loadu_si128(from));
    } else {
      _mm_storel_epi64(to, block = _mm_loadl_epi64(from));
    }
    const int percents = _mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_set1_epi8('%')));
    const int copied = std::countr_zero(static_cast<unsigned>(percents) | 1u << size);
    at_ += copied;
    out_ += copied;
    return copied == size;
  }

  /// Most values are short: copied by two moves that overlap, without a call.
  void copy(const char* bytes, std::size_t size) {
    if (size > 16) {
      std::memcpy(out_, bytes, size);
    } else if (size >= 8) {
      std::memcpy(out_, bytes, 8);
      std::memcpy(out_ + size - 8, bytes + size - 8, 8);
    } else if (size >= 4) {
      std::memcpy(out_, bytes, 4);
      std::memcpy(out_ + size - 4, bytes + size - 4, 4);
    } else if (size > 0) {
      out_[0] = bytes[0];
      out_[size / 2] = bytes[size / 2];
      out_[size - 1] = bytes[size - 1];
    }
  }

  void make_room(std::size_t needed) {
    const std::size_t before = used();
    text_.resize(2 * (before + needed));
    out_ = text_.data() + before;
    room_end_ = text_.data() + text_.size();
  }

  const char* at_;
  const char* end_;
  std::string& text_;
  char* out_;
  char* room_end_;
};

}  // namespace

std::string fill_views(std::string_view tmpl, const std::string_view* values, std::size_t count) {
  // Enough unless a value occurs twice.
  std::size_t room = tmpl.size();
  for (std::size_t i = 0; i < count; ++i) room += values[i].size();
  std::string filled(room, 0);
  filling text(tmpl, filled);
  while (text.copy_literal()) {
    std::size_t number = 0;
    if (!text.read_placeholder(number)) {
      text.copy_percent();
    } else if (number - 1 < count) {
      text.put(values[number - 1]);
    }
  }
  text.finish();
  return filled;
}

std::string fmt::str() const {
  const std::vector<std::string_view> values(values_.begin(), values_.end());
  return fill_views(template_, values.data(), values.size());
}

}  // namespace muro
