#include "platform/linux/tree_copy.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

namespace platform::detail {
namespace {

constexpr mode_t kBits = 07777;

struct entry {
  std::string name;
  unsigned char type;  // of the directory entry; the file system may leave it open
};

// What is in an open folder, without "." and "..", in the folder's own order.
bool list_entries(int folder, std::vector<entry>& entries) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(open_stream(folder), ::closedir);
  if (!stream) return false;
  errno = 0;
  while (const dirent* const found = ::readdir(stream.get())) {
    const std::string name = found->d_name;
    if (name != "." && name != "..") entries.push_back({name, found->d_type});
    errno = 0;
  }
  return errno == 0;
}

// Gives DT_UNKNOWN with errno when the entry cannot be looked at.
unsigned char type_of(int folder, const char* name) {
  struct stat status;
  if (status_at(folder, name, status, links::kept) != 0) return DT_UNKNOWN;
  return static_cast<unsigned char>(IFTODT(status.st_mode));
}

descriptor open_folder_at(int folder, const char* name) {
  return descriptor(open_at(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
}

// A pipe that took the file's place since it was looked at must not make the copy wait for a writer.
descriptor open_regular(int folder, const char* name, struct stat& status) {
  descriptor file(open_at(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
  if (!file.is_open() || ::fstat(file.get(), &status) != 0) return descriptor();
  if (S_ISREG(status.st_mode)) return file;
  errno = ENOTSUP;
  return descriptor();
}

}  // namespace

bool tree_copy::run(const char* from, int folder, const std::string& name) {
  path_ = name;
  if (!copy_entry({AT_FDCWD, from}, {folder, name.c_str()}, DT_UNKNOWN) || !files_.finish())
    return false;
  // Only now, since a link may lead to what is copied after it.
  links_lead_somewhere_ = std::all_of(links_.begin(), links_.end(), [folder](const auto& link) {
    struct stat status;
    return status_at(folder, link.c_str(), status, links::followed) == 0;
  });
  return true;
}

bool tree_copy::copy_entry(place from, place to, unsigned char type) {
  if (type == DT_UNKNOWN) type = type_of(from.folder, from.name);
  if (type == DT_REG) return copy_file(from, to);
  if (type == DT_DIR) return copy_folder(from, to);
  if (type == DT_LNK) return copy_link(from, to);
  if (type != DT_UNKNOWN) errno = ENOTSUP;  // sockets, pipes, devices
  return false;
}

bool tree_copy::copy_file(place from, place to) {
  constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
  struct stat status;
  descriptor source = open_regular(from.folder, from.name, status);
  if (!source.is_open()) return false;
  descriptor target(open_at(to.folder, to.name, kNew, S_IRUSR | S_IWUSR));
  if (!target.is_open()) return false;
  return files_.copy(
      {std::move(source), std::move(target), status.st_size, status.st_mode & kBits});
}

bool tree_copy::copy_link(place from, place to) {
  char text[PATH_MAX];  // the system has no longer ones
  const ssize_t length = ::readlinkat(from.folder, from.name, text, sizeof text - 1);
  if (length < 0) return false;
  text[length] = '\0';
  links_.push_back(path_);
  return ::symlinkat(text, to.folder, to.name) == 0;
}

// The folder gets its own bits last, so that one without write permission can be filled.
bool tree_copy::copy_folder(place from, place to) {
  const bool is_outermost = from.folder == AT_FDCWD;
  const descriptor source = open_folder_at(from.folder, from.name);
  struct stat status;
  if (!source.is_open() || ::fstat(source.get(), &status) != 0) return false;
  if (make_folder_at(to.folder, to.name, S_IRWXU) != 0) return false;
  const descriptor target = open_folder_at(to.folder, to.name);
  if (!target.is_open() || !fill_folder(source.get(), target.get())) return false;
  if (is_outermost && !files_.finish()) return false;
  return files_.give_rights(target.get(), status.st_mode & kBits);
}

bool tree_copy::fill_folder(int from, int to) {
  std::vector<entry> entries;
  if (!list_entries(from, entries)) return false;
  const std::size_t length = path_.size();
  for (const entry& each : entries) {
    path_.append("/").append(each.name);
    const place source{from, each.name.c_str()};
    const place target{to, each.name.c_str()};
    if (!copy_entry(source, target, each.type)) return false;
    path_.resize(length);
  }
  return true;
}

}  // namespace platform::detail
