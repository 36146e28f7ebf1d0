#include "muro/core/log_text.h"

#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "muro/sys/time.h"

namespace muro::log_text {

namespace {

bool must_escape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == '`';
}

/// Whether one of eight bytes must be escaped. A byte below 0x20 borrows from its top bit when 0x20
/// is taken off, and so does a zero byte with 1; bytes from 0x80 up are masked out. A byte behind
/// one that borrows may be taken for one too, which changes nothing about the answer.
bool any_must_be_escaped(const char* eight) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  std::uint64_t bytes;
  std::memcpy(&bytes, eight, sizeof bytes);
  const std::uint64_t accents = bytes ^ (kOnes * 0x60);
  return ((((bytes - kOnes * 0x20) & ~bytes) | ((accents - kOnes) & ~accents)) & (kOnes * 0x80)) !=
         0;
}

/// How many bytes there are in front of the first that must be escaped.
std::size_t plain_length(std::string_view text) {
  std::size_t at = 0;
  while (text.size() - at >= 8 && !any_must_be_escaped(text.data() + at)) at += 8;
  while (at < text.size() && !must_escape(text[at])) ++at;
  return at;
}

/// 0 where a host's clock fails.
long long wait_clock_or_0() noexcept try { return wait_clock_us(); } catch (...) {
  return 0;
}

}  // namespace

void escape(std::string& text) {
  std::string escaped;
  append_escaped(escaped, text);
  text.swap(escaped);
}

void append_escaped(std::string& out, std::string_view text) {
  while (!text.empty()) {
    const std::size_t plain = plain_length(text);
    out.append(text, 0, plain);
    if (plain == text.size()) return;
    constexpr char kDigits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(text[plain]);
    const char escaped[] = {'`', kDigits[byte >> 4], kDigits[byte & 15]};
    out.append(escaped, sizeof escaped);
    text.remove_prefix(plain + 1);
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

const std::string& clock::now() {
  const long long asked_us = wait_clock_or_0();
  long long now_ms = 0;
  try {
    now_ms = absolute_time();
  } catch (...) {
    second_ = -1;
    over_us_ = 0;
    return text_ = "N";
  }
  const long long second = now_ms / 1000;
  if (second != second_) {
    text_ = timestamp(second);
    second_ = second;
  }
  // Up to a millisecond early, as that much of the time is cut off.
  over_us_ = asked_us + (999 - now_ms % 1000) * 1000;
  return text_;
}

const std::string& clock::next() {
  const long long at_us = wait_clock_or_0();
  return at_us != 0 && at_us < over_us_ ? text_ : now();
}

}  // namespace muro::log_text
