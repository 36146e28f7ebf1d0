#include "muro/core/log_shrink.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "muro/core/fmt.h"
#include "muro/core/log_open.h"
#include "muro/sys/files.h"
#include "muro/sys/xfile.h"

namespace muro {

namespace {

struct move {
  std::string from, to;
};

void delete_quietly(const std::string& path) {
  try {
    delete_file(path);
  } catch (...) {
    // It is moved over or met again at the next rotation.
  }
}

void move_quietly(const move& m) {
  try {
    move_file(m.from, m.to);
  } catch (...) {
    // The next one is tried all the same.
  }
}

/// Whether anything stands under the name. A link that leads nowhere would stop the moves behind it
/// too, and the log would grow for ever.
bool is_taken(const std::string& path) {
  return file_identity::of(path).known;
}

/// The moves that make room for a new `name`, newest first; what has no place any more is deleted
/// on the way.
std::vector<move> plan_rotation(const std::string& name, int count) {
  std::vector<move> newest_first;
  std::string previous = name;
  for (int k = 0;; ++k) {
    std::string candidate = stringify(name, '.', k);
    if (k < count) {
      newest_first.push_back({previous, candidate});
      if (!is_taken(candidate)) break;
    } else {
      if (!is_taken(previous)) break;
      delete_quietly(previous);
    }
    previous = std::move(candidate);
  }
  return newest_first;
}

/// Gives a file's bytes line by line, line ends included.
class line_reader {
 public:
  explicit line_reader(xfile& file) : file_(file) {}

  /// False at the end of the file. The line is valid until the next call.
  bool next(std::string_view& line) {
    buffer_.erase(0, given_);
    std::size_t searched = 0;
    std::size_t end;
    while ((end = buffer_.find('\n', searched)) == std::string::npos) {
      searched = buffer_.size();
      if (!file_.read(buffer_)) break;
    }
    given_ = end == std::string::npos ? buffer_.size() : end + 1;
    line = std::string_view(buffer_).substr(0, given_);
    return given_ != 0;
  }

 private:
  xfile& file_;
  std::string buffer_;
  std::size_t given_ = 0;
};

/// Copies lines until one fills or exceeds what `remaining` has left, that one included. False when
/// a write failed.
bool copy_lines(line_reader& from, xfile& to, unsigned long long& remaining) {
  std::string_view line;
  while (remaining > 0 && from.next(line)) {
    to.write(line.data(), line.size());
    if (std::ferror(to) != 0) return false;
    // Deliberate: a line that fills the rest exactly is cut off again too.
    if (remaining <= line.size()) break;
    remaining -= line.size();
  }
  return true;
}

}  // namespace

bool rotate_log(xfile& file, unsigned long long size, int count) {
  if (!file) return false;
  const long position = std::ftell(file);
  const file_identity own = file_identity::of(file);
  try {
    file.close();
  } catch (...) {
    // A file that reports errors: its lines are as good as they get.
  }
  if (position < static_cast<long long>(size) || file.path().empty()) return false;
  if (!(file_identity::of(file.path()) == own)) return false;
  const std::vector<move> newest_first = plan_rotation(file.path(), count);
  for (auto m = newest_first.rbegin(); m != newest_first.rend(); ++m) move_quietly(*m);
  return !(file_identity::of(file.path()) == own);
}

bool cut_log(xfile& file, unsigned long long size) try {
  const long position = file ? std::ftell(file) : -1;
  if (position < 0 || size >= static_cast<unsigned long long>(position)) return false;
  if (file.path().empty()) return false;
  std::string refusal;
  xfile reader(file.path(), open_log(file.path(), log_access::read, refusal));
  if (!(file_identity::of(reader) == file_identity::of(file))) return false;
  if (std::fseek(reader, 0, SEEK_END) != 0 || std::ftell(reader) < position) return false;
  const unsigned long long half = size / 2;
  if (std::fseek(file, 0, SEEK_SET) != 0) return false;
  if (std::fseek(reader, position - static_cast<long>(half), SEEK_SET) != 0) return false;
  unsigned long long remaining = half;
  line_reader lines(reader);
  if (!copy_lines(lines, file, remaining)) return true;
  // A buffered stream would put its bytes behind the cut when it is closed.
  if (std::fflush(file) != 0) return true;
  file.truncate(half - remaining);
  return true;
} catch (...) {
  return true;
}

}  // namespace muro
