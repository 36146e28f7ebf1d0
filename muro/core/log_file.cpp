#include <cstdio>

#include "muro/core/log_output.h"
#include "muro/core/log_settings.h"
#include "muro/core/log_shrink.h"

namespace muro {

namespace {

constexpr std::size_t kPiece = 0x10000;

}  // namespace

log_file::log_file(const std::string& path, log_folder& folder)
    : file_(path, xfile::read_write_create, false), folder_(folder) {
  // Without a buffer the stream holds nothing that exit() would flush behind the dumper's back.
  if (is_open()) std::setvbuf(file_, nullptr, _IONBF, 0);
}

log_file::~log_file() {
  if (!is_open()) return;
  try {
    write_gathered();
    keep_small();
  } catch (...) {
    // Out of memory for a file name: the next batch keeps the file small.
  }
}

void log_file::write(std::string_view line, std::size_t prefix_length) {
  const log_folder::output output = folder_.fold(line, prefix_length);
  if (output.step_back > gathered_.size()) {
    write_gathered();
    step_back_ = output.step_back;
  } else {
    gathered_.resize(gathered_.size() - output.step_back);
  }
  gathered_ += output.bytes;
  if (gathered_.size() >= kPiece) write_gathered();
}

void log_file::write_gathered() {
  if (gathered_.empty()) return;
  // A file that is shorter than the step back (somebody emptied it) is appended to.
  const long offset = -static_cast<long>(step_back_);
  if (std::fseek(file_, offset, SEEK_END) != 0) std::fseek(file_, 0, SEEK_END);
  file_.write(gathered_);
  if (std::ferror(file_) != 0) {
    // Nobody knows how much of the last line is in the file: the next one is written in full.
    std::clearerr(file_);
    folder_.forget();
  }
  gathered_.clear();
  step_back_ = 0;
}

void log_file::keep_small() {
  const unsigned long long cut_size = log_cut_size;
  const unsigned long long rotate_size = log_rotate_size;
  const int rotate_count = log_rotate_count;
  if (cut_size != 0) {
    // The last line may be gone; a marker for it would overwrite the end of another one.
    if (cut_log(file_, cut_size)) folder_.forget();
  } else if (rotate_size != 0 && rotate_count != 0) {
    rotate_log(file_, rotate_size, rotate_count);
  }
}

}  // namespace muro
