#include "muro/core/log_open.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "muro/sys/files_internal.h"
#include "muro/sys/unique_fd.h"
#include "platform/platform.h"

namespace muro {

namespace {

/// How often a file that others take away between two calls is asked for again.
constexpr int kAttempts = 3;

/// O_NONBLOCK: a pipe without another end does not hold up the open. It means nothing to a regular
/// file, and nothing else is kept open.
constexpr int kFlags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

unique_fd open_descriptor(const std::string& path, log_access access) {
  const char* const name = detail::os_path(path);
  if (access == log_access::read) return unique_fd(::open(name, O_RDONLY | kFlags));
  unique_fd found(::open(name, O_RDWR | kFlags));
  if (found.is_open() || errno != ENOENT) return found;
  return unique_fd(::open(name, O_RDWR | O_CREAT | O_EXCL | kFlags, 0666));
}

const char* reason_against(const struct stat& status, uid_t user) {
  if (S_ISLNK(status.st_mode)) return "it is a link";
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_nlink > 1) return "it has more than one name";
  if (status.st_uid != user) return "it belongs to another user";
  return "";
}

/// Why the system may have refused: links, folders and sockets cannot be opened like this at all.
const char* reason_at(const std::string& path) {
  const int kept = errno;
  struct stat status;
  const bool there = ::lstat(detail::os_path(path), &status) == 0 && !S_ISREG(status.st_mode);
  errno = kept;
  return there ? reason_against(status, ::geteuid()) : "";
}

/// Waits for a removal that is under way in the folder: between its two steps the file has a name
/// less already, and the entry is still there. Every change of a folder waits for the one before,
/// this one too, which changes nothing: what ends in a slash is no file (unlink(2), ENOTDIR).
void await_folder(const std::string& path) {
  static_cast<void>(!::unlink((path + "/").c_str()));
}

FILE* stream_on(unique_fd descriptor, log_access access) {
  FILE* const stream = ::fdopen(descriptor.get(), access == log_access::read ? "rb" : "r+b");
  if (stream == nullptr) return nullptr;
  descriptor.release();
  if (access == log_access::append) std::setvbuf(stream, nullptr, _IONBF, 0);
  return stream;
}

file_identity identity(const struct stat& status) {
  return {status.st_dev, status.st_ino, true};
}

}  // namespace

FILE* open_log(const std::string& path, log_access access, std::string& refusal) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    refusal.clear();
    unique_fd descriptor = open_descriptor(path, access);
    if (!descriptor.is_open()) {
      refusal = reason_at(path);
      // EEXIST: somebody else was faster.
      if (errno == EEXIST && refusal.empty()) continue;
      return nullptr;
    }
    struct stat opened, named;
    if (::fstat(descriptor.get(), &opened) != 0) return nullptr;
    const uid_t user = ::geteuid();
    refusal = reason_against(opened, user);
    if (!refusal.empty()) return nullptr;
    // The name may have been given to another user's file for the moment of the opening.
    if (::lstat(detail::os_path(path), &named) != 0) continue;
    if (!(identity(named) == identity(opened))) continue;
    // Only an entry that is there still was there when the file had one name, and so was that name.
    await_folder(path);
    if (!platform::is_still_named(descriptor.get(), path.c_str() + path.rfind('/') + 1)) continue;
    refusal = reason_against(named, user);
    return refusal.empty() ? stream_on(std::move(descriptor), access) : nullptr;
  }
  refusal = "it is taken away again and again";
  return nullptr;
}

file_identity file_identity::of(FILE* stream, long* size) {
  struct stat status;
  if (stream == nullptr || ::fstat(::fileno(stream), &status) != 0) return {};
  if (size != nullptr) *size = static_cast<long>(status.st_size);
  return identity(status);
}

file_identity file_identity::of(const std::string& path) {
  struct stat status;
  return ::lstat(detail::os_path(path), &status) == 0 ? identity(status) : file_identity();
}

}  // namespace muro
