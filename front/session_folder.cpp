#include "front/session_folder.h"

#include "front/paths.h"
#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/strings.h"

namespace {

constexpr const char* kSuffix = ".dat";
constexpr const char* kOwner = "root";
constexpr const char* kGroup = "admin";

// How a nil string is logged: as "(null)".
const char* text_of(const nil_string& text) {
  return text ? text->c_str() : nullptr;
}

// The one door to a session's folder: nothing is made for an ID that names no session.
bool create_in_session(const nil_string& restore_id, const std::string& below) {
  return namesSession(restore_id) &&
         createFolder(sessionFolder(*restore_id) + below, kSessionPermissions);
}

// Follows a link, as the system's file manager does.
platform::file_outcome open_to_all(const std::string& item) {
  return platform::set_attributes(item, kSessionPermissions, kOwner, kGroup);
}

// Deliberate: the messages differ in case and punctuation from the others, and from each other.
void open_bundle_to_all(const muro::fmt_dbg& log, const std::string& bundle) {
  const platform::file_outcome outcome = open_to_all(bundle);
  if (!outcome.ok) log.fmt_verbose("failed to set permission %1%", text_of(outcome.description));
  for (const std::string& entry : platform::subpaths(bundle)) {
    const platform::file_outcome item = open_to_all(bundle + "/" + entry);
    if (!item.ok)
      log.fmt_verbose("failed to set permissions for %1%:::%2%", entry,
                      item.description.value_or("Unknown error"));
  }
}

}  // namespace

bool namesSession(const nil_string& restore_id) {
  return restore_id && !restore_id->empty() && *restore_id != "." && *restore_id != ".." &&
         restore_id->find_first_of(std::string("/\0", 2)) == std::string::npos;
}

std::string sessionFolder(const std::string& restore_id) {
  return kSessionsRoot + restore_id;
}

nil_string restoreIDFromFile(const nil_string& path) {
  if (!path) return std::nullopt;
  std::string name = muro::basename(*path);
  // Deliberate: every ".dat" goes, in the middle of the name too.
  if (!ends_with(name, kSuffix) || !replace_all(name, kSuffix, "")) return std::nullopt;
  return name;
}

bool createFolder(const nil_string& path, unsigned permissions) {
  const muro::fmt_dbg log("createFolder");
  const platform::autorelease_pool pool;
  platform::file_outcome outcome{false, std::nullopt};
  if (path) outcome = platform::create_folder(*path, static_cast<mode_t>(permissions));
  if (!outcome.ok) log.fmt_verbose("Failed to create directory: %1%", text_of(outcome.description));
  return outcome.ok;
}

nil_string moveRestoreFileIfNeeded(const nil_string& path, const nil_string& restore_id) {
  const muro::fmt_dbg log("moveRestoreFileIfNeeded");
  if (!path || !muro::file_exists(*path)) {
    log.fmt_verbose("Restore file does not exist: %1%", text_of(path));
    return std::nullopt;
  }
  if (!create_in_session(restore_id, "")) {
    log.fmt_verbose("Failed to create session folder");
    return std::nullopt;
  }
  const std::string target = sessionFolder(*restore_id) + "/" + *restore_id + kSuffix;
  try {
    muro::move_file(*path, target);
  } catch (...) {
    const std::string error = muro::system_error_string();  // before anything changes errno
    log.fmt_verbose("Failed to move file: %1%", error);
    return std::nullopt;
  }
  return target;
}

nil_string moveHelper(const std::string& helper_path, const nil_string& restore_id) {
  const muro::fmt_dbg log("moveHelper");
  if (!muro::file_exists(helper_path)) {
    log.fmt_verbose("Helper file %1% does not exist", helper_path);
    return std::nullopt;
  }
  if (!create_in_session(restore_id, "/helper/")) {
    log.fmt_verbose("Failed to create helper folder");
    return std::nullopt;
  }
  const std::string target = sessionFolder(*restore_id) + "/helper/KorvelHelper";
  try {
    muro::move_file(helper_path, target);
    muro::set_executable(target);
  } catch (...) {
    const std::string error = muro::system_error_string();  // before anything changes errno
    log.fmt_verbose("Failed to move file to %1%: %2%", target, error);
    return std::nullopt;
  }
  return target;
}

nil_string moveAppBundle(const nil_string& bundle_path, const nil_string& restore_id) {
  const muro::fmt_dbg log("moveAppBundle");
  // Deliberate: goes on without the folder; the copy then fails and tells why.
  if (!create_in_session(restore_id, "/app/")) log.fmt_verbose("Failed to create bundle folder");
  platform::file_outcome outcome{false, std::nullopt};
  std::string target;
  if (bundle_path && namesSession(restore_id)) {
    target = sessionFolder(*restore_id) + "/app/" + lastPathComponent(*bundle_path);
    outcome = platform::copy_item(*bundle_path, target);
  }
  if (!outcome.ok) {
    log.fmt_verbose("Failed to move bundle: %1%", text_of(outcome.description));
    return std::nullopt;
  }
  open_bundle_to_all(log, target);
  return target;
}
