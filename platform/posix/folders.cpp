/// Folders opened and made name by name, each relative to the one before.

#include "platform/posix/folders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/platform.h"

namespace platform {
namespace {

constexpr int kFolder = O_RDONLY | O_DIRECTORY;
constexpr mode_t kFoldersAbove = 0755;

// Whether only root and this process can have put a link into the folder. In any other the link may
// be a trap, laid before the call or in the midst of it.
bool may_hold_links(int folder) {
  struct stat status;
  if (::fstat(folder, &status) != 0) return false;
  return (status.st_uid == 0 || status.st_uid == ::geteuid()) && (status.st_mode & S_IWOTH) == 0;
}

bool is_link(int folder, const char* name) {
  const int kept = errno;
  struct stat status;
  const bool link = status_at(folder, name, status, links::kept) == 0 && S_ISLNK(status.st_mode);
  errno = kept;
  return link;
}

// The folder `name` in `folder`. errno: ELOOP for a link that is not followed, else open's own.
descriptor enter(int folder, const char* name) {
  descriptor entered(open_at(folder, name, kFolder | O_NOFOLLOW));
  if (entered.is_open() || !is_link(folder, name)) return entered;
  if (may_hold_links(folder)) return descriptor(open_at(folder, name, kFolder));
  errno = ELOOP;
  return descriptor();
}

// Made closed to everyone else, and given its bits through a descriptor: no umask changes them, at
// no instant are there more, and nothing that was put into its place meanwhile gets them.
descriptor make(int folder, const char* name, mode_t mode) {
  const bool is_new = make_folder_at(folder, name, mode & S_IRWXU) == 0;
  if (!is_new && errno != EEXIST) return descriptor();
  descriptor made = enter(folder, name);
  struct stat status;
  if (!made.is_open() || !is_new) return made;
  if (::fstat(made.get(), &status) != 0) return descriptor();
  if (status.st_uid == ::geteuid() && ::fchmod(made.get(), mode) != 0) return descriptor();
  return made;
}

descriptor enter_or_make(int folder, const char* name, mode_t mode) {
  descriptor entered = enter(folder, name);
  const bool is_missing = !entered.is_open() && errno == ENOENT && !is_link(folder, name);
  return is_missing ? make(folder, name, mode) : std::move(entered);
}

descriptor open_start(const std::string& path) {
  return descriptor(open_at(AT_FDCWD, path.front() == '/' ? "/" : ".", kFolder));
}

// Calls `step(folder, name, is_last)` for each name of the path until one gives a descriptor that
// is not open, and returns the last.
template <class Step>
descriptor walk(const std::string& path, Step step) {
  descriptor at = open_start(path);
  std::size_t begin = path.find_first_not_of('/');
  while (at.is_open() && begin != std::string::npos) {
    const std::size_t end = path.find('/', begin);
    const std::string name = path.substr(begin, end == std::string::npos ? end : end - begin);
    begin = path.find_first_not_of('/', end);
    at = step(at.get(), name.c_str(), begin == std::string::npos);
  }
  return at;
}

}  // namespace

namespace detail {

bool is_path(const std::string& path) noexcept {
  errno = path.empty() ? ENOENT : EINVAL;
  return !path.empty() && path.find('\0') == std::string::npos;
}

std::string without_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string last_name(const std::string& path) {
  const std::string trimmed = without_trailing_slashes(path);
  const std::string name = trimmed.substr(trimmed.find_last_of('/') + 1);
  return name.empty() ? "." : name;
}

std::string parent_of(const std::string& path) {
  const std::string trimmed = without_trailing_slashes(path);
  const std::size_t slash = trimmed.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : trimmed.substr(0, slash);
}

descriptor open_parent(const std::string& path) {
  return descriptor(open_folder(parent_of(path)));
}

bool make_folders(const std::string& path, mode_t mode) {
  if (!is_path(path)) return false;
  const descriptor made = walk(path, [mode](int folder, const char* name, bool is_last) {
    return enter_or_make(folder, name, is_last ? mode : kFoldersAbove);
  });
  if (!made.is_open() && errno == ENOTDIR) errno = EEXIST;  // something else is in the way
  return made.is_open();
}

}  // namespace detail

int open_folder(const std::string& path) {
  if (!detail::is_path(path)) return -1;
  return walk(path, [](int folder, const char* name, bool) { return enter(folder, name); })
      .release();
}

}  // namespace platform
