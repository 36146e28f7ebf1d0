#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/linux/second_thread.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"

namespace platform {
namespace {

/// How many files go before a second thread is worth its start.
constexpr int kWorthAThread = 256;
/// How many descriptors wait to be closed.
constexpr std::size_t kRoom = 64;
/// A limit beyond this is as good as none.
constexpr long kMostNumbers = 1 << 20;

// NFS keeps a name for what is still open, and the folder could not go.
bool forgets_names_at_once(int folder) {
  struct statfs status;
  return ::fstatfs(folder, &status) == 0 && status.f_type != NFS_SUPER_MAGIC;
}

}  // namespace

/// Giving back what a file held takes longer than removing its name. It is done by whoever lets go
/// of the file last; so the second thread is given a descriptor of each, to close behind its removal.
/// A descriptor of O_PATH opens nothing, whatever the entry is.
struct file_remover::background {
  background() : closing(kRoom, [](descriptor file) { file = descriptor(); }) {}

  descriptor hold(int folder, const char* name) noexcept {
    if (++removed == kWorthAThread && forgets_names_at_once(folder)) start();
    if (!closing.has_room()) return descriptor();
    descriptor file(::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return file.get() < highest ? std::move(file) : descriptor();
  }

  void start() noexcept {
    highest = static_cast<int>(std::min(::sysconf(_SC_OPEN_MAX), kMostNumbers) / 2);
    closing.start();
  }

  int removed = 0;
  int highest = 0;  // of the numbers that may be held: the upper half is left to those who need one
  detail::second_thread<descriptor> closing;
};

file_remover::file_remover() : background_(std::make_unique<background>()) {}

file_remover::~file_remover() {
  const int kept = errno;
  background_.reset();
  errno = kept;
}

int file_remover::remove(int folder, const char* name) noexcept {
  descriptor file = background_->hold(folder, name);
  const int result = remove_at(folder, name, entry_kind::file);
  if (file.is_open() && result == 0) background_->closing.offer(file);
  return result;
}

}  // namespace platform
