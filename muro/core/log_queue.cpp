#include "muro/core/log_queue.h"

#include <algorithm>
#include <new>

namespace muro {

log_slice::log_slice(std::size_t entry_size)
    : room_(std::max(kSize, room_for(entry_size))), bytes_(new char[room_]) {}

void log_queue::push(const text_parts& parts) {
  const std::size_t size = parts.size();
  parts.copy_to(add(size, size, false));
}

void log_queue::push(const raw_log_line& line) {
  new (add(sizeof line, line.length, true)) raw_log_line(line);
}

char* log_queue::add(std::size_t entry_size, std::size_t length, bool is_raw) {
  char* const place = slices_.empty() ? nullptr : slices_.back().add(entry_size, length, is_raw);
  return place != nullptr ? place : add_to_new_slice(entry_size, length, is_raw);
}

char* log_queue::add_to_new_slice(std::size_t entry_size, std::size_t length, bool is_raw) {
  // An empty slice that is too small must not stay in front.
  if (empty()) slices_.clear();
  slices_.emplace_back(entry_size);
  return slices_.back().add(entry_size, length, is_raw);
}

void log_queue::pop_front() {
  if (slices_.size() == 1 && slices_.front().is_usual()) {
    slices_.front().clear();
  } else {
    slices_.pop_front();
  }
}

}  // namespace muro
