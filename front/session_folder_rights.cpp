#include "front/session_folder_rights.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "front/session_folder.h"
#include "muro/core/exception.h"
#include "muro/sys/files_walk.h"
#include "muro/sys/unique_fd.h"
#include "platform/platform.h"

using platform::item_rights;

namespace {

constexpr const char* kOwner = "root";
constexpr const char* kGroup = "admin";

// The errno of a failure that the account data base does not explain.
constexpr int kUnexplained = -1;

// The two look-ups differ only in their types. Nullopt when there is no account of that name.
template <class Entry, class Id>
std::optional<Id> find_account(int (*look_up)(const char*, Entry*, char*, std::size_t, Entry**),
                               const char* name, Id Entry::*member) {
  constexpr std::size_t kEnough = 1 << 20;
  std::vector<char> buffer(1024);
  Entry entry;
  Entry* found = nullptr;
  while (look_up(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kEnough)
    buffer.resize(buffer.size() * 2);
  if (found == nullptr) return std::nullopt;
  return found->*member;
}

// Each of these gives 0, or the errno of the failure.

int open_to_all(int item, const item_rights& to) {
  struct stat status;
  if (::fstat(item, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return ENOTSUP;
  if (S_ISREG(status.st_mode) && status.st_nlink != 1) return EMLINK;
  // A change of owner takes set-user-id bits away, so the bits come last.
  if (::fchown(item, to.owner, to.group) != 0) return errno;
  return ::fchmod(item, to.mode) == 0 ? 0 : errno;
}

int open_entry_to_all(int folder, const char* name, const item_rights& to) {
  constexpr int kItself = O_RDONLY | O_NOFOLLOW | O_NONBLOCK;
  struct stat status;
  if (platform::status_at(folder, name, status, platform::links::kept) != 0) return errno;
  if (S_ISLNK(status.st_mode))
    return platform::status_at(folder, name, status, platform::links::followed) == 0 ? 0 : errno;
  // Looked at first, because opening a device may already do something.
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return ENOTSUP;
  const muro::unique_fd item(platform::open_at(folder, name, kItself));
  return item.is_open() ? open_to_all(item.get(), to) : errno;
}

int open_step_to_all(const muro::folder_walk& walk, muro::folder_walk::step step,
                     const std::optional<item_rights>& to) {
  using kind = muro::folder_walk::step;
  if (step == kind::left) return 0;
  if (step == kind::lost) return walk.error();
  if (!to) return kUnexplained;
  if (step == kind::folder) return open_to_all(walk.entered(), *to);
  const int error = open_entry_to_all(walk.holder(), walk.name().c_str(), *to);
  return error == 0 && walk.is_folder() ? walk.error() : error;
}

// Deliberate: the two messages differ in case and punctuation from the others, and from each other.

void tell(const muro::fmt_dbg& log, int error) {
  const std::string text = error == kUnexplained ? "(null)" : muro::safe_strerror(error);
  log.fmt_verbose("failed to set permission %1%", text);
}

void tell(const muro::fmt_dbg& log, int error, const std::string& entry) {
  const std::string text = error == kUnexplained ? "Unknown error" : muro::safe_strerror(error);
  log.fmt_verbose("failed to set permissions for %1%:::%2%", entry, text);
}

}  // namespace

std::optional<item_rights> rightsForAll() {
  const auto owner = find_account(::getpwnam_r, kOwner, &passwd::pw_uid);
  const auto group = find_account(::getgrnam_r, kGroup, &group::gr_gid);
  if (!owner || !group) return std::nullopt;
  return item_rights{*owner, *group, static_cast<mode_t>(kSessionPermissions)};
}

void openBundleToAll(const muro::fmt_dbg& log, const std::string& folder, const std::string& name) {
  using step = muro::folder_walk::step;
  constexpr int kItself = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
  const auto to = rightsForAll();
  const muro::unique_fd holder(platform::open_folder(folder));
  if (!holder.is_open()) return tell(log, errno);
  const int error = to ? open_entry_to_all(holder.get(), name.c_str(), *to) : kUnexplained;
  if (error != 0) tell(log, error);
  muro::folder_walk walk(muro::unique_fd(platform::open_at(holder.get(), name.c_str(), kItself)));
  for (step at = walk.next(); at != step::end; at = walk.next()) {
    const int failed = open_step_to_all(walk, at, to);
    if (failed != 0) tell(log, failed, walk.path());
  }
}
