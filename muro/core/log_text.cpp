#include "muro/core/log_text.h"

#include <time.h>

#include <algorithm>
#include <cstdio>

#include "muro/sys/time.h"

namespace muro::log_text {

namespace {

bool must_escape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == '`';
}

}  // namespace

void escape(std::string& text) {
  const auto first = std::find_if(text.begin(), text.end(), must_escape);
  if (first == text.end()) return;
  std::string escaped(text.begin(), first);
  escaped.reserve(text.size() + 16);
  for (auto at = first; at != text.end(); ++at) {
    if (!must_escape(*at)) {
      escaped += *at;
      continue;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(*at);
    escaped += '`';
    escaped += kDigits[byte >> 4];
    escaped += kDigits[byte & 15];
  }
  text.swap(escaped);
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
  long long second = -1;
  try {
    second = absolute_time_t();
  } catch (...) {
    second_ = -1;
    return text_ = "N";
  }
  if (second != second_) {
    text_ = timestamp(second);
    second_ = second;
  }
  return text_;
}

}  // namespace muro::log_text
