/// Copying a bundle of kFiles files in one folder, with a link, and deleting it.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "muro/sys/files.h"
#include "platform/platform.h"
#include "tests/budget/budget.h"

namespace {

constexpr int kFiles = 100;
constexpr int kMostTrees = 12;  // what budget.py asks for

void make_bundle(const std::string& path) {
  bool made = ::mkdir(path.c_str(), 0700) == 0 && ::symlink("0", (path + "/link").c_str()) == 0;
  for (int i = 0; i < kFiles; ++i) {
    std::FILE* const file = std::fopen((path + "/" + std::to_string(i)).c_str(), "w");
    made = file != nullptr && std::fputs("content", file) >= 0 && std::fclose(file) == 0 && made;
  }
  if (!made) std::perror("make_bundle"), std::exit(1);
}

void bundle_copy() {
  static int copies = 0;
  if (copies == 0) make_bundle("bundle");
  const platform::item_rights rights{::geteuid(), ::getegid(), 0777};
  const std::string copy = "copy" + std::to_string(++copies);
  if (!platform::copy_item("bundle", copy, rights).has_rights) std::exit(1);
}

void bundle_delete() {
  static int deleted = 0;
  for (int i = 0; deleted == 0 && i < kMostTrees; ++i) make_bundle("bundle" + std::to_string(i));
  muro::delete_recursive("bundle" + std::to_string(deleted++));
}

}  // namespace

int main(int argc, char** argv) {
  return budget::run(argc, argv, {{"bundle_copy", bundle_copy}, {"bundle_delete", bundle_delete}});
}
