#include "platform/linux/content_copier.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace platform::detail {
namespace {

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

// Copies what is left of `from`.
bool copy_by_buffer(int from, int to) {
  char buffer[65536];
  for (;;) {
    const ssize_t length = ::read(from, buffer, sizeof buffer);
    if (length == 0) return true;
    if (length < 0 && errno != EINTR) return false;
    if (length > 0 && !write_all(to, buffer, static_cast<std::size_t>(length))) return false;
  }
}

// By the kernel alone, which shares the blocks where the file system can (copy_file_range(2)).
// Whatever that leaves, for want of it or for a failure, is copied by hand, and what fails there
// too is the outcome. So is a file of no size: some of the kernel's own have a content all the same.
bool copy_content(int from, int to, off_t size) {
  off_t left = size;
  while (left > 0) {
    const ssize_t copied =
        ::copy_file_range(from, nullptr, to, nullptr, static_cast<std::size_t>(left), 0);
    if (copied <= 0) break;
    left -= copied;
  }
  return (size > 0 && left == 0) || copy_by_buffer(from, to);
}

}  // namespace

content_copier::content_copier(const std::optional<item_rights>& rights)
    : rights_(rights), thread_(kRoom, [this](file_copy file) { complete(std::move(file)); }) {}

bool content_copier::copy(file_copy file) noexcept {
  taken_ += file.size;
  if (taken_ >= kWorthAThread && !std::exchange(has_started_, true)) thread_.start();
  if (!thread_.offer(file)) complete(std::move(file));
  return has_succeeded();
}

bool content_copier::finish() noexcept {
  thread_.finish();
  return has_succeeded();
}

bool content_copier::give_rights(int item, mode_t mode) noexcept {
  // A change of owner takes set-user-id bits away, so the bits come last.
  if (rights_ && ::fchown(item, rights_->owner, rights_->group) == 0 &&
      ::fchmod(item, rights_->mode) == 0)
    return true;
  lacks_rights_ = true;
  return ::fchmod(item, mode) == 0;
}

void content_copier::complete(file_copy file) noexcept {
  if (error_ != 0) return;
  if (copy_content(file.from.get(), file.to.get(), file.size) &&
      give_rights(file.to.get(), file.mode) && file.to.close())
    return;
  int none = 0;
  error_.compare_exchange_strong(none, errno);
}

bool content_copier::has_succeeded() const noexcept {
  const int error = error_;
  if (error != 0) errno = error;
  return error == 0;
}

}  // namespace platform::detail
