#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/folders.h"

namespace platform {
namespace {

file_outcome success() {
  return {true, std::nullopt};
}

file_outcome failure(int error) {
  return {false, std::generic_category().message(error)};
}

// The names in an open folder, without "." and "..", in the folder's own order.
bool list_names(int folder, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(open_stream(folder), ::closedir);
  if (!stream) return false;
  errno = 0;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
    errno = 0;
  }
  return errno == 0;
}

int open_folder_at(int folder, const char* name) {
  return ::openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool write_all(int to, const char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t written = ::write(to, bytes, length);
    if (written < 0 && errno != EINTR) return false;
    if (written <= 0) continue;
    bytes += written;
    length -= static_cast<std::size_t>(written);
  }
  return true;
}

bool copy_bytes(int from, int to) {
  char buffer[65536];
  for (;;) {
    const ssize_t length = ::read(from, buffer, sizeof buffer);
    if (length == 0) return true;
    if (length < 0 && errno != EINTR) return false;
    if (length > 0 && !write_all(to, buffer, static_cast<std::size_t>(length))) return false;
  }
}

/// An entry named relative to an open folder.
struct place {
  int folder;
  const char* name;
};

// A pipe that took the file's place since it was looked at must not make the copy wait for a writer.
descriptor open_regular(place from) {
  descriptor file(open_at(from.folder, from.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
  struct stat status;
  if (!file.is_open() || ::fstat(file.get(), &status) != 0) return descriptor();
  if (S_ISREG(status.st_mode)) return file;
  errno = ENOTSUP;
  return descriptor();
}

bool copy_file(place from, place to, mode_t mode) {
  const descriptor source = open_regular(from);
  if (!source.is_open()) return false;
  descriptor target(
      ::openat(to.folder, to.name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  return target.is_open() && copy_bytes(source.get(), target.get()) &&
         ::fchmod(target.get(), mode) == 0 && target.close();
}

bool copy_link(place from, place to, std::size_t size) {
  std::string text(size + 1, '\0');
  const ssize_t length = ::readlinkat(from.folder, from.name, text.data(), text.size());
  if (length < 0) return false;
  text.resize(static_cast<std::size_t>(length));
  return ::symlinkat(text.c_str(), to.folder, to.name) == 0;
}

bool copy_entry(place from, place to);

// The folder gets its own bits last, so that one without write permission can be filled.
bool copy_folder(place from, place to, mode_t mode) {
  const descriptor source(open_folder_at(from.folder, from.name));
  if (!source.is_open() || ::mkdirat(to.folder, to.name, 0700) != 0) return false;
  const descriptor target(open_folder_at(to.folder, to.name));
  std::vector<std::string> names;
  if (!target.is_open() || !list_names(source.get(), names)) return false;
  for (const std::string& name : names)
    if (!copy_entry({source.get(), name.c_str()}, {target.get(), name.c_str()})) return false;
  return ::fchmod(target.get(), mode) == 0;
}

bool copy_entry(place from, place to) {
  struct stat status;
  if (::fstatat(from.folder, from.name, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
  const mode_t mode = status.st_mode & 07777;
  if (S_ISREG(status.st_mode)) return copy_file(from, to, mode);
  if (S_ISDIR(status.st_mode)) return copy_folder(from, to, mode);
  if (S_ISLNK(status.st_mode)) return copy_link(from, to, static_cast<std::size_t>(status.st_size));
  errno = ENOTSUP;  // sockets, pipes, devices
  return false;
}

nil_string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
  return real ? nil_string(real.get()) : std::nullopt;
}

// Whether `path` would lie in the folder `tree`: a copy into itself would never end.
bool lies_within(const std::string& path, const std::string& tree) {
  struct stat status;
  if (::lstat(tree.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  const nil_string inner = resolved(detail::parent_of(path));
  const nil_string outer = resolved(tree);
  if (!inner || !outer) return false;
  return *outer == "/" || (*inner + "/").compare(0, outer->size() + 1, *outer + "/") == 0;
}

}  // namespace

file_outcome create_folder(const std::string& path, mode_t mode) {
  return detail::make_folders(path, mode) ? success() : failure(errno);
}

file_outcome copy_item(const std::string& from, const std::string& to) {
  if (!detail::is_path(from) || !detail::is_path(to)) return failure(errno);
  const std::string source = detail::without_trailing_slashes(from);
  const std::string target = detail::without_trailing_slashes(to);
  const std::string name = detail::last_name(target);
  struct stat status;
  if (::lstat(target.c_str(), &status) == 0) return failure(EEXIST);
  if (lies_within(target, source)) return failure(EINVAL);
  const descriptor folder = detail::open_parent(target);
  const bool copied =
      folder.is_open() && copy_entry({AT_FDCWD, source.c_str()}, {folder.get(), name.c_str()});
  return copied ? success() : failure(errno);
}

}  // namespace platform
