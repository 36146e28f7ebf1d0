#include "muro/core/log_fold.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace muro {

namespace {

// " - ", ten columns, " - " and the line end.
constexpr std::size_t kMarkerTail = 17;

// A buffer of this size serves every usual line and is kept; a larger one is given back as soon as
// a line no longer needs it.
constexpr std::size_t kKeptCapacity = 0x10000;

}  // namespace

log_folder::output log_folder::fold(std::string_view line, std::size_t prefix_length) {
  if (is_repeat(line, prefix_length)) return marker(line.substr(0, prefix_length));
  if (!marker_.empty()) std::string().swap(marker_);
  remember(line, prefix_length);
  return {line, 0};
}

void log_folder::forget() {
  line_.reset();
  capacity_ = 0;
}

bool log_folder::is_repeat(std::string_view line, std::size_t prefix_length) const {
  if (line_ == nullptr || prefix_length != prefix_length_ || line.size() != length_) return false;
  if (line.size() < kMarkerTail || line.size() - kMarkerTail < prefix_length) return false;
  return std::memcmp(line.data() + prefix_length, line_.get() + prefix_length,
                     line.size() - prefix_length) == 0;
}

void log_folder::remember(std::string_view line, std::size_t prefix_length) {
  const std::size_t n = line.size();
  const bool fits = capacity_ >= n && (capacity_ <= kKeptCapacity || n > kKeptCapacity);
  if (line_ == nullptr || !fits) {
    line_.reset();
    capacity_ = std::max(n, kKeptCapacity);
    line_.reset(new char[capacity_]);
  }
  std::copy(line.begin(), line.end(), line_.get());
  length_ = n;
  prefix_length_ = prefix_length;
  repeats_ = 0;
}

log_folder::output log_folder::marker(std::string_view prefix) {
  char tail[kMarkerTail + 1];
  std::snprintf(tail, sizeof tail, " - %10u - \n", ++repeats_);
  marker_.assign(prefix).append(tail, kMarkerTail);
  return {marker_, repeats_ == 1 ? 0 : marker_.size()};
}

}  // namespace muro
