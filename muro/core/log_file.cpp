#include <cerrno>
#include <cstdio>

#include "muro/core/log_output.h"
#include "muro/core/log_settings.h"
#include "muro/core/log_shrink.h"

namespace muro {

namespace detail {

constinit std::atomic<std::size_t (*)(const void*, std::size_t, std::size_t, FILE*)> g_log_fwrite{
    std::fwrite};

}  // namespace detail

namespace {

constexpr std::size_t kPiece = 0x10000;

}  // namespace

log_file::log_file(const std::string& path, log_memory& memory)
    : file_(path, open_log(path, log_access::append, refusal_)), memory_(memory) {
  if (is_open()) recall(path);
  memory_.gathered.clear();
}

log_file::~log_file() {
  if (!is_open()) return;
  try {
    memory_.gathered.resize(whole_lines_);
    write_gathered();
    keep_small();
  } catch (...) {
    // Out of memory for a file name: the next batch keeps the file small.
  }
  if (memory_.gathered.capacity() > 2 * kPiece) std::string().swap(memory_.gathered);
}

void log_file::recall(const std::string& path) {
  long size = 0;
  identity_ = file_identity::of(file_, &size);
  if (path != memory_.path) {
    forget();
    memory_.path = path;
  } else if (memory_.identity.known) {
    const bool same = identity_ == memory_.identity;
    if (!same || size < memory_.end) forget();
  }
}

void log_file::forget() {
  memory_.folder.forget();
  memory_.identity = {};
}

void log_file::end_line(std::size_t prefix_length) {
  std::string& gathered = memory_.gathered;
  const std::string_view line = std::string_view(gathered).substr(whole_lines_);
  const log_folder::output output = memory_.folder.fold(line, prefix_length);
  if (output.bytes.data() != line.data()) put_marker(output);
  if (gathered.size() >= kPiece) write_gathered();
  whole_lines_ = gathered.size();
}

/// Puts the marker in the place of the last line and of the marker before it.
void log_file::put_marker(const log_folder::output& marker) {
  std::string& gathered = memory_.gathered;
  gathered.resize(whole_lines_);
  if (marker.step_back > gathered.size()) {
    write_gathered();
    step_back_ = marker.step_back;
  } else {
    gathered.resize(gathered.size() - marker.step_back);
  }
  gathered += marker.bytes;
}

/// Puts the file at the place for the next piece and gives it; -1 when that cannot be done.
long log_file::place_for_gathered() {
  if (std::fseek(file_, 0, SEEK_END) != 0) return -1;
  const long end = std::ftell(file_);
  // Where the marker's predecessor cannot stand any more, it is appended.
  if (step_back_ == 0 || !memory_.identity.known || end < memory_.end) return end;
  const long offset = -static_cast<long>(step_back_);
  return std::fseek(file_, offset, SEEK_END) == 0 ? std::ftell(file_) : end;
}

void log_file::write_gathered() {
  std::string& gathered = memory_.gathered;
  if (gathered.empty()) return;
  const long begin = place_for_gathered();
  const std::size_t written =
      begin < 0 ? 0 : detail::g_log_fwrite.load()(gathered.data(), 1, gathered.size(), file_);
  if (written == gathered.size()) {
    memory_.identity = identity_;
    memory_.end = begin + static_cast<long>(written);
  } else {
    drop_torn_line(begin, written);
    forget();
  }
  gathered.clear();
  step_back_ = 0;
}

/// Leaves of a piece that was written in part its whole lines. Nothing is cut off when the file does
/// not end where the piece does: that is somebody else's, or what a marker did not cover.
void log_file::drop_torn_line(long begin, std::size_t written) {
  std::clearerr(file_);
  if (written == 0 || std::fseek(file_, 0, SEEK_END) != 0) return;
  if (std::ftell(file_) != begin + static_cast<long>(written)) return;
  const std::size_t line_end = std::string_view(memory_.gathered).substr(0, written).rfind('\n');
  const std::size_t whole = line_end == std::string::npos ? 0 : line_end + 1;
  file_.truncate(static_cast<unsigned long long>(begin) + whole);
  std::fseek(file_, 0, SEEK_END);
}

void log_file::keep_small() {
  const unsigned long long cut_size = log_cut_size;
  const unsigned long long rotate_size = log_rotate_size;
  const int rotate_count = log_rotate_count;
  if (cut_size != 0) {
    // The last line may be gone; a marker for it would overwrite the end of another one.
    if (cut_log(file_, cut_size)) forget();
  } else if (rotate_size != 0 && rotate_count != 0) {
    // The counting goes on, in a file that has not got the marker before.
    if (rotate_log(file_, rotate_size, rotate_count)) memory_.identity = {};
  }
}

}  // namespace muro
