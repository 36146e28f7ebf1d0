#pragma once

/// The contents of a tree's files. Copying them is most of the work of copying a tree, and it needs
/// nothing but two descriptors; so a second thread takes part in it once there is much to copy.

#include <sys/types.h>

#include <atomic>
#include <optional>

#include "platform/linux/second_thread.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"

namespace platform::detail {

/// A file to be copied and the new, empty one that gets its content.
struct file_copy {
  descriptor from;
  descriptor to;
  off_t size;   // what `from` had when it was opened
  mode_t mode;  // and its permission bits
};

/// For one tree, on one thread. May throw `std::bad_alloc` where it says so, nothing else.
class content_copier {
 public:
  /// How much is handed over before a second thread is worth its start, in bytes.
  static constexpr off_t kWorthAThread = 1 << 20;

  /// Throws `std::bad_alloc`.
  explicit content_copier(const std::optional<item_rights>& rights);

  /// Copies the content and gives the new file its rights, now or later. False with errno when this
  /// or an earlier file has failed; from then on no more are copied.
  bool copy(file_copy file) noexcept;

  /// Returns when everything that was handed over is complete. False with errno as `copy`.
  bool finish() noexcept;

  /// Gives an item its rights; one that cannot have them gets the bits `mode`, as does every item
  /// when there are no rights to give. False with errno when not even that succeeds.
  bool give_rights(int item, mode_t mode) noexcept;

  /// Whether there are rights and every item so far has been given them. To be asked after `finish`.
  bool has_rights() const noexcept { return rights_ && !lacks_rights_; }

 private:
  /// How many files wait at most. Each holds two descriptors.
  static constexpr std::size_t kRoom = 16;

  void complete(file_copy file) noexcept;
  bool has_succeeded() const noexcept;

  const std::optional<item_rights> rights_;
  std::atomic<bool> lacks_rights_{false};
  std::atomic<int> error_{0};  // the errno of the first failure

  off_t taken_ = 0;
  bool has_started_ = false;
  second_thread<file_copy> thread_;  // goes first, since it uses the others
};

}  // namespace platform::detail
