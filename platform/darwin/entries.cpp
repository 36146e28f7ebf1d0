/// Entries of open folders, and the exclusive rename.
///
/// Up to 10.9 the system has no call that takes a folder's descriptor and a name. What it has is a
/// working folder for a single thread: the thread enters the folder by its descriptor, makes the
/// plain call with the name, and leaves. The name is looked up in that very folder, as by the newer
/// calls; no other thread notices. Nothing is looked up twice and compared.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "platform/darwin/newer_calls.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/rename.h"

namespace platform {
namespace {

using detail::calls;

// Of <fcntl.h> and <stdio.h>, which hide what is newer than the lowest release.
constexpr int kNoFollow = 0x20;
constexpr int kRemoveFolder = 0x80;
constexpr unsigned kExclusive = 0x4;

/// The calling thread's own working folder for a scope. Keeps errno when it leaves.
class inside {
 public:
  explicit inside(int folder) noexcept : by_path_(folder == AT_FDCWD) {
    if (by_path_) return;
    // A negative number would not enter a folder but leave one.
    errno = folder < 0 ? EBADF : ENOTSUP;
    if (folder < 0 || calls().thread_fchdir == nullptr) return;
    entered_ = calls().thread_fchdir(folder) == 0;
  }
  ~inside() {
    const int kept = errno;
    if (entered_) calls().thread_fchdir(-1);
    errno = kept;
  }
  inside(const inside&) = delete;
  inside& operator=(const inside&) = delete;

  explicit operator bool() const noexcept { return by_path_ || entered_; }

 private:
  bool by_path_;
  bool entered_ = false;
};

/// Runs `call` inside `folder`; -1 when that cannot be entered.
template <class Call>
int run_inside(int folder, Call call) noexcept {
  const inside here(folder);
  return here ? call() : -1;
}

// A relative path means the process's working folder, also where the thread has its own.
std::string absolute(const char* path) {
  char folder[16384];
  if (path[0] == '/' || ::getcwd(folder, sizeof folder) == nullptr) return path;
  return std::string(folder) + "/" + path;
}

}  // namespace

int open_at(int folder, const char* name, int flags, mode_t mode) noexcept {
  if (calls().has_folder_calls()) return calls().openat(folder, name, flags | O_CLOEXEC, mode);
  return run_inside(folder, [&] { return ::open(name, flags | O_CLOEXEC, mode); });
}

int status_at(int folder, const char* name, struct stat& status, links which) noexcept {
  const bool kept = which == links::kept;
  if (calls().has_folder_calls())
    return calls().fstatat(folder, name, &status, kept ? kNoFollow : 0);
  return run_inside(folder, [&] { return kept ? ::lstat(name, &status) : ::stat(name, &status); });
}

int make_folder_at(int folder, const char* name, mode_t mode) noexcept {
  if (calls().has_folder_calls()) return calls().mkdirat(folder, name, mode);
  return run_inside(folder, [&] { return ::mkdir(name, mode); });
}

int remove_at(int folder, const char* name, entry_kind kind) noexcept {
  const bool is_folder = kind == entry_kind::folder;
  if (calls().has_folder_calls())
    return calls().unlinkat(folder, name, is_folder ? kRemoveFolder : 0);
  return run_inside(folder, [&] { return is_folder ? ::rmdir(name) : ::unlink(name); });
}

struct file_remover::background {};

file_remover::file_remover() = default;
file_remover::~file_remover() = default;

int file_remover::remove(int folder, const char* name) noexcept {
  return remove_at(folder, name, entry_kind::file);
}

DIR* open_stream(int folder) noexcept {
  if (!calls().has_folder_calls()) {
    const inside here(folder);
    DIR* const stream = here ? ::opendir(".") : nullptr;
    if (stream != nullptr) ::fcntl(::dirfd(stream), F_SETFD, FD_CLOEXEC);
    return stream;
  }
  descriptor number(open_at(folder, ".", O_RDONLY | O_DIRECTORY));
  DIR* const stream = number.is_open() ? calls().fdopendir(number.get()) : nullptr;
  if (stream != nullptr) number.release();
  return stream;
}

namespace detail {

int native_rename_new(const char* from, int folder, const char* to) noexcept {
  if (calls().renameatx_np != nullptr)
    return calls().renameatx_np(AT_FDCWD, from, folder, to, kExclusive);
  errno = ENOSYS;
  return -1;
}

int link_file(const char* from, int folder, const char* to) {
  if (calls().has_folder_calls()) return calls().linkat(AT_FDCWD, from, folder, to, 0);
  const std::string source = absolute(from);
  return run_inside(folder, [&] { return ::link(source.c_str(), to); });
}

int rename_over(const char* from, int folder, const char* to) {
  if (calls().has_folder_calls()) return calls().renameat(AT_FDCWD, from, folder, to);
  const std::string source = absolute(from);
  return run_inside(folder, [&] { return ::rename(source.c_str(), to); });
}

}  // namespace detail
}  // namespace platform
