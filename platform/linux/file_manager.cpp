#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "platform/linux/tree_copy.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/folders.h"

namespace platform {
namespace {

file_outcome success() {
  return {true, std::nullopt};
}

file_outcome failure(int error) {
  return {false, std::generic_category().message(error)};
}

nil_string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
  return real ? nil_string(real.get()) : std::nullopt;
}

// Whether `path` would lie in the folder `tree`: a copy into itself would never end.
bool lies_within(const std::string& path, const std::string& tree) {
  struct stat status;
  if (::lstat(tree.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  const nil_string inner = resolved(detail::parent_of(path));
  const nil_string outer = resolved(tree);
  if (!inner || !outer) return false;
  return *outer == "/" || (*inner + "/").compare(0, outer->size() + 1, *outer + "/") == 0;
}

}  // namespace

file_outcome create_folder(const std::string& path, mode_t mode) {
  return detail::make_folders(path, mode) ? success() : failure(errno);
}

copy_outcome copy_item(const std::string& from, const std::string& to,
                       const std::optional<item_rights>& rights) {
  const auto fail = [](int error) { return copy_outcome{failure(error), false}; };
  if (!detail::is_path(from) || !detail::is_path(to)) return fail(errno);
  const std::string source = detail::without_trailing_slashes(from);
  const std::string target = detail::without_trailing_slashes(to);
  const std::string name = detail::last_name(target);
  struct stat status;
  if (::lstat(target.c_str(), &status) == 0) return fail(EEXIST);
  if (lies_within(target, source)) return fail(EINVAL);
  const descriptor folder = detail::open_parent(target);
  if (!folder.is_open()) return fail(errno);
  detail::tree_copy copy(rights);
  if (!copy.run(source.c_str(), folder.get(), name)) return fail(errno);
  return {success(), copy.has_rights()};
}

}  // namespace platform
