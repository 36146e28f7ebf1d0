#pragma once

/// Copying one file, link or tree, from open folder to name. For file_manager.cpp.

#include <string>
#include <vector>

#include "platform/linux/content_copier.h"
#include "platform/platform.h"

namespace platform::detail {

/// One copy, as `platform::copy_item` tells. May throw `std::bad_alloc`, nothing else.
class tree_copy {
 public:
  explicit tree_copy(const std::optional<item_rights>& rights) : files_(rights) {}

  /// Copies the item at the path `from` to the new entry `name` of `folder`. False with errno when
  /// something failed; what has been copied so far stays. To be called once.
  bool run(const char* from, int folder, const std::string& name);

  /// After a run that succeeded, see `platform::copy_outcome`.
  bool has_rights() const { return files_.has_rights() && links_lead_somewhere_; }

 private:
  /// An entry named relative to an open folder.
  struct place {
    int folder;
    const char* name;
  };

  bool copy_entry(place from, place to, unsigned char type);
  bool copy_file(place from, place to);
  bool copy_link(place from, place to);
  bool copy_folder(place from, place to);
  bool fill_folder(int from, int to);

  content_copier files_;
  std::string path_;                // of the entry at hand, from the folder that holds the copy
  std::vector<std::string> links_;  // their paths
  bool links_lead_somewhere_ = true;
};

}  // namespace platform::detail
