#include "muro/core/log_text.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "muro/sys/time.h"

namespace muro::log_text {

namespace {

bool must_escape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == '`';
}

/// Whether nothing must be escaped, as in nearly all texts. Looks at a row of bytes at once, which
/// compilers make one step of; the last row may begin within the one before.
bool is_plain(std::string_view text) {
  std::array<unsigned char, 16> found{};
  const auto look_at = [&found](const char* row) {
    for (std::size_t i = 0; i < found.size(); ++i) {
      const auto byte = static_cast<unsigned char>(row[i]);
      found[i] |= static_cast<unsigned char>((byte < 0x20) | (byte == '`'));
    }
  };
  if (text.size() < found.size()) return std::none_of(text.begin(), text.end(), must_escape);
  for (std::size_t at = 0; at + found.size() <= text.size(); at += found.size()) {
    look_at(text.data() + at);
  }
  look_at(text.data() + text.size() - found.size());
  return found == std::array<unsigned char, 16>{};
}

}  // namespace

void escape(std::string& text) {
  std::string escaped;
  append_escaped(escaped, text);
  text.swap(escaped);
}

void append_escaped(std::string& out, std::string_view text) {
  if (is_plain(text)) {
    out += text;
    return;
  }
  for (const char c : text) {
    if (!must_escape(c)) {
      out += c;
      continue;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    const char escaped[] = {'`', kDigits[byte >> 4], kDigits[byte & 15]};
    out.append(escaped, sizeof escaped);
  }
}

std::string_view raw_message(std::string_view data, std::size_t prefix_length) {
  // Written so that a prefix length near the largest number does not wrap.
  return prefix_length < data.size() && data.size() - prefix_length > 1
             ? data.substr(prefix_length + 1)
             : data;
}

std::string_view without_line_end(std::string_view text) {
  return text.substr(0, text.find_last_not_of("\r\n") + 1);
}

std::string timestamp(long long seconds_since_epoch) {
  const auto time = static_cast<time_t>(seconds_since_epoch);
  tm date{};
  if (::gmtime_r(&time, &date) == nullptr) return "N";
  char text[64];
  std::snprintf(text, sizeof text, "%d-%02d-%02dT%02d:%02d:%02dZ", date.tm_year + 1900,
                date.tm_mon + 1, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
  return text;
}

const std::string& clock::now() try {
  const long long second = absolute_time() / 1000;
  if (second != second_) {
    text_ = timestamp(second);
    second_ = second;
  }
  return text_;
} catch (...) {
  second_ = -1;
  return text_ = "N";
}

}  // namespace muro::log_text
