#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "platform/platform.h"

namespace platform {
namespace {

// Owns a descriptor; closing keeps errno, for the failure that is about to be told.
class descriptor {
 public:
  explicit descriptor(int number) : number_(number) {}
  ~descriptor() {
    const int kept = errno;
    if (number_ >= 0) ::close(number_);
    errno = kept;
  }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;

  int get() const { return number_; }
  bool is_open() const { return number_ >= 0; }

  /// Closes now and tells whether the kernel had kept a write error back.
  bool close() {
    const int number = number_;
    number_ = -1;
    return ::close(number) == 0;
  }

 private:
  int number_;
};

file_outcome success() {
  return {true, std::nullopt};
}

file_outcome failure(int error) {
  return {false, std::generic_category().message(error)};
}

// A system call would act on the part before a zero byte.
bool is_path(const std::string& path) {
  return !path.empty() && path.find('\0') == std::string::npos;
}

std::string without_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool is_folder(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The mode is set through a descriptor that follows no link: in a folder that others may write,
// the new entry could have been exchanged for a link meanwhile.
bool set_mode_of_new_folder(const std::string& path, mode_t mode) {
  const descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return folder.is_open() && ::fchmod(folder.get(), mode) == 0;
}

// An entry that is no folder gives EEXIST; one that someone else has just made is as good as ours.
bool make_folder(const std::string& path, mode_t mode) {
  if (is_folder(path)) return true;
  if (::mkdir(path.c_str(), 0700) == 0) return set_mode_of_new_folder(path, mode);
  const int error = errno;
  if (error == EEXIST && is_folder(path)) return true;
  errno = error;
  return false;
}

std::string parent_of(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// The names in an open folder, without "." and "..", in the folder's own order.
bool list_names(int folder, std::vector<std::string>& names) {
  const int number = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (number < 0) return false;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(number), ::closedir);
  if (!stream) {
    const descriptor unused(number);
    return false;
  }
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

bool copy_file(place from, place to, mode_t mode) {
  const descriptor source(::openat(from.folder, from.name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
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
  const std::string parent = parent_of(path);
  const nil_string inner = resolved(parent.empty() ? (path.front() == '/' ? "/" : ".") : parent);
  const nil_string outer = resolved(tree);
  if (!inner || !outer) return false;
  return *outer == "/" || (*inner + "/").compare(0, outer->size() + 1, *outer + "/") == 0;
}

// The two account look-ups differ only in their types: 0 with an id, or not found.
template <class Entry, class Id>
bool find_account(int (*look_up)(const char*, Entry*, char*, std::size_t, Entry**),
                  const char* name, Id Entry::*member, Id& id) {
  std::vector<char> buffer(1024);
  Entry entry;
  Entry* found = nullptr;
  while (look_up(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE)
    buffer.resize(buffer.size() * 2);
  if (found == nullptr) return false;
  id = found->*member;
  return true;
}

// Appends the entries below the open folder, each with `prefix` in front.
void list_below(int folder, const std::string& prefix, std::vector<std::string>& out) {
  std::vector<std::string> names;
  if (!list_names(folder, names)) return;
  for (const std::string& name : names) {
    out.push_back(prefix + name);
    const descriptor inner(open_folder_at(folder, name.c_str()));
    if (inner.is_open()) list_below(inner.get(), prefix + name + "/", out);
  }
}

}  // namespace

file_outcome create_folder(const std::string& path, mode_t mode) {
  if (!is_path(path)) return failure(path.empty() ? ENOENT : EINVAL);
  const std::string folder = without_trailing_slashes(path);
  for (std::size_t slash = folder.find('/', 1); slash != std::string::npos;
       slash = folder.find('/', slash + 1))
    if (!make_folder(folder.substr(0, slash), mode)) return failure(errno);
  return make_folder(folder, mode) ? success() : failure(errno);
}

file_outcome copy_item(const std::string& from, const std::string& to) {
  if (!is_path(from) || !is_path(to)) return failure(from.empty() || to.empty() ? ENOENT : EINVAL);
  const std::string source = without_trailing_slashes(from);
  const std::string target = without_trailing_slashes(to);
  struct stat status;
  if (::lstat(target.c_str(), &status) == 0) return failure(EEXIST);
  if (lies_within(target, source)) return failure(EINVAL);
  const bool copied = copy_entry({AT_FDCWD, source.c_str()}, {AT_FDCWD, target.c_str()});
  return copied ? success() : failure(errno);
}

file_outcome set_attributes(const std::string& path, mode_t mode, const char* owner,
                            const char* group) {
  uid_t uid = 0;
  gid_t gid = 0;
  if (!is_path(path)) return failure(path.empty() ? ENOENT : EINVAL);
  // The account data base tells no reason for a name that it does not hold.
  if (!find_account(::getpwnam_r, owner, &passwd::pw_uid, uid) ||
      !find_account(::getgrnam_r, group, &::group::gr_gid, gid))
    return {false, std::nullopt};
  // A change of owner takes set-user-id bits away, so the bits come last.
  if (::chown(path.c_str(), uid, gid) != 0 || ::chmod(path.c_str(), mode) != 0)
    return failure(errno);
  return success();
}

std::vector<std::string> subpaths(const std::string& path) {
  std::vector<std::string> found;
  if (!is_path(path)) return found;
  const descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.is_open()) list_below(folder.get(), "", found);
  return found;
}

}  // namespace platform
