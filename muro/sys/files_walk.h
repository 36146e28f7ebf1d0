#pragma once

/// A walk through a tree of folders that nobody can lead astray.
///
/// Every step is taken from an open folder to a name in it, and no link is followed: whatever is
/// swapped, moved or replaced meanwhile, the walk stays in folders that were below its root when it
/// entered them. It needs neither stack nor descriptors by the depth: it keeps the root and the
/// deepest few folders open and finds back up through "..", taking a folder only when device and
/// inode are those it came through.
///
/// A folder's names are read when it is entered and before it is told, so it may be emptied on the
/// way.

#include <sys/types.h>

#include <string>
#include <vector>

#include "muro/sys/unique_fd.h"

namespace muro {

/// One walk, on one thread. May throw `std::bad_alloc`, nothing else.
class folder_walk {
 public:
  enum class step {
    entry,   // an entry that is not entered: no folder, or one that cannot be opened
    folder,  // a folder that has just been entered
    left,    // the folder `name()` after all that it holds
    lost,    // the way back up is gone: the walk goes on beside `name()`, an entry of the root
    end
  };

  /// Walks what is below `root`, an open folder, which itself is not told.
  explicit folder_walk(unique_fd root);

  /// Goes on to the next step. A folder comes before what it holds; else in the folder's own order.
  step next();

  /// The open folder that holds what was told last, and its name there. Valid until the next step.
  int holder() const { return holder_; }
  const std::string& name() const { return name_; }

  /// Of an `entry`: whether it is a folder; then `error` is why it could not be opened.
  bool is_folder() const { return is_folder_; }
  /// The errno of an `entry` that is a folder, or of `lost`.
  int error() const { return error_; }

  /// Of a `folder`: its own descriptor.
  int entered() const { return levels_.back().fd.get(); }

  /// What was told last, as a path relative to the root.
  std::string path() const;

 private:
  struct named {
    std::string name;
    unsigned char type;  // of the directory entry; the system may leave it open
  };
  struct level {
    std::string name;
    unique_fd fd;  // closed where more than a few levels lie below
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<named> entries;
    std::size_t next = 0;
  };

  static std::vector<named> read_names(int folder);
  bool may_be_folder(const named& entry) const;
  bool enter(unique_fd folder, const std::string& name);
  bool open_again(level& parent, const level& child);
  step take();
  step leave();

  std::vector<level> levels_;
  int holder_ = -1;
  std::size_t depth_ = 0;  // how many levels lie above what was told last
  std::string name_;
  bool is_folder_ = false;
  int error_ = 0;
};

}  // namespace muro
