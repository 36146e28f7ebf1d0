#include "muro/sys/files_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "muro/core/errno_guard.h"
#include "muro/sys/files_internal.h"
#include "platform/platform.h"

namespace muro {

namespace {

constexpr int kEnter = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
/// How many of the deepest folders stay open, beside the root.
constexpr std::size_t kOpenLevels = 4;

bool is_dot_entry(const std::string& name) {
  return name == "." || name == "..";
}

/// Owns an open folder's stream.
class folder_stream {
 public:
  explicit folder_stream(int folder) : stream_(platform::open_stream(folder)) {}
  ~folder_stream() {
    const errno_guard keep;
    while (stream_ != nullptr && detail::g_closedir.load()(stream_) == -1 && errno == EINTR) {
    }
  }
  folder_stream(const folder_stream&) = delete;
  folder_stream& operator=(const folder_stream&) = delete;

  /// The next entry; null at the end, on a failure and when the folder did not open. The stream is
  /// this object's own, so plain `readdir` is safe on every thread; `readdir_r` is deprecated, as
  /// no buffer is known to be long enough for every name.
  const dirent* next() { return stream_ != nullptr ? ::readdir(stream_) : nullptr; }

 private:
  DIR* stream_;
};

}  // namespace

int detail::close_stream_once(DIR* stream) {
  // The C library has freed the stream when it reports EINTR; a second call would free it again.
  return ::closedir(stream) == 0 || errno == EINTR ? 0 : -1;
}

folder_walk::folder_walk(unique_fd root) {
  if (root.is_open()) enter(std::move(root), "");
}

folder_walk::step folder_walk::next() {
  if (levels_.empty()) return step::end;
  return levels_.back().next < levels_.back().entries.size() ? take() : leave();
}

std::string folder_walk::path() const {
  std::string path;
  for (std::size_t i = 1; i < depth_; ++i) path.append(levels_[i].name).append("/");
  return path + name_;
}

std::vector<folder_walk::named> folder_walk::read_names(int folder) {
  std::vector<named> names;
  folder_stream stream(folder);
  while (const dirent* const entry = stream.next()) {
    if (!is_dot_entry(entry->d_name)) names.push_back({entry->d_name, entry->d_type});
  }
  return names;
}

bool folder_walk::may_be_folder(const named& entry) const {
  if (entry.type != DT_UNKNOWN) return entry.type == DT_DIR;
  struct stat status;
  return platform::status_at(holder_, entry.name.c_str(), status, platform::links::kept) == 0 &&
         S_ISDIR(status.st_mode);
}

bool folder_walk::enter(unique_fd folder, const std::string& name) {
  struct stat status;
  if (!folder.is_open() || ::fstat(folder.get(), &status) != 0) return false;
  level entered{name, std::move(folder), status.st_dev, status.st_ino, {}, 0};
  entered.entries = read_names(entered.fd.get());
  levels_.push_back(std::move(entered));
  if (levels_.size() > kOpenLevels + 1) levels_[levels_.size() - 1 - kOpenLevels].fd.reset();
  return true;
}

folder_walk::step folder_walk::take() {
  level& here = levels_.back();
  const named& entry = here.entries[here.next++];
  holder_ = here.fd.get();
  depth_ = levels_.size();
  name_ = entry.name;
  is_folder_ = may_be_folder(entry);
  if (!is_folder_) return step::entry;
  if (enter(unique_fd(platform::open_at(holder_, name_.c_str(), kEnter)), name_))
    return step::folder;
  error_ = errno;
  return step::entry;
}

bool folder_walk::open_again(level& parent, const level& child) {
  if (parent.fd.is_open()) return true;
  unique_fd found(platform::open_at(child.fd.get(), "..", kEnter));
  struct stat status;
  if (!found.is_open() || ::fstat(found.get(), &status) != 0) return false;
  errno = ENOENT;
  if (status.st_dev != parent.device || status.st_ino != parent.inode) return false;
  parent.fd = std::move(found);
  return true;
}

folder_walk::step folder_walk::leave() {
  level done = std::move(levels_.back());
  levels_.pop_back();
  if (levels_.empty()) return step::end;
  const bool is_back = open_again(levels_.back(), done);
  error_ = errno;
  name_ = std::move(done.name);
  if (!is_back) {
    name_ = std::move(levels_[1].name);
    levels_.erase(levels_.begin() + 1, levels_.end());
  }
  holder_ = levels_.back().fd.get();
  depth_ = levels_.size();
  return is_back ? step::left : step::lost;
}

}  // namespace muro
