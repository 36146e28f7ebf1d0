#include "muro/core/fmt.h"

namespace muro {

namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

/// A string that is written from its front into room that was made before.
class writer {
 public:
  explicit writer(std::string& text)
      : text_(text), out_(text.data()), end_(text.data() + text.size()) {}

  void put(const char* bytes, std::size_t size) {
    if (size > static_cast<std::size_t>(end_ - out_)) make_room(size);
    copy(bytes, size);
    out_ += size;
  }

  void finish() { text_.resize(static_cast<std::size_t>(out_ - text_.data())); }

 private:
  /// Most pieces are short: copied by two moves that overlap, without a call.
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

  void make_room(std::size_t size) {
    const auto used = static_cast<std::size_t>(out_ - text_.data());
    text_.resize(2 * (used + size));
    out_ = text_.data() + used;
    end_ = text_.data() + text_.size();
  }

  std::string& text_;
  char* out_;
  char* end_;
};

/// Reads the digits at `at`. Stops counting where no argument is any more, so that no number of
/// digits is too many.
std::size_t read_number(const char*& at, const char* end) {
  constexpr std::size_t kEnough = 100000000;
  std::size_t number = 0;
  for (; at != end && is_digit(*at); ++at) {
    if (number < kEnough) number = number * 10 + static_cast<std::size_t>(*at - '0');
  }
  return number;
}

const char* find_percent(const char* begin, const char* end) {
  return static_cast<const char*>(std::memchr(begin, '%', static_cast<std::size_t>(end - begin)));
}

}  // namespace

std::string fill_views(std::string_view tmpl, const std::string_view* values, std::size_t count) {
  // Enough unless a value occurs twice.
  std::size_t room = tmpl.size();
  for (std::size_t i = 0; i < count; ++i) room += values[i].size();
  std::string filled(room, 0);
  writer text(filled);
  const char* literal = tmpl.data();
  const char* const end = literal + tmpl.size();
  const auto put_literal = [&](const char* literal_end) {
    text.put(literal, static_cast<std::size_t>(literal_end - literal));
  };
  const char* at = literal;
  while (const char* const percent = at != end ? find_percent(at, end) : nullptr) {
    at = percent + 1;
    if (at != end && *at == '%') {
      put_literal(at);  // "%%" is one "%"
      literal = ++at;
      continue;
    }
    const char* const digits = at;
    const std::size_t number = read_number(at, end);
    // Any other "%", with the digits after it, is no placeholder and belongs to the literal.
    if (at == digits || at == end || *at != '%') continue;
    put_literal(percent);
    if (number - 1 < count) text.put(values[number - 1].data(), values[number - 1].size());
    literal = ++at;
  }
  put_literal(end);
  text.finish();
  return filled;
}

std::string fmt::str() const {
  const std::vector<std::string_view> values(values_.begin(), values_.end());
  return fill_views(template_, values.data(), values.size());
}

}  // namespace muro
