#include "front/session_folder.h"

#include <fcntl.h>

#include "front/paths.h"
#include "front/session_folder_rights.h"
#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/strings.h"
#include "muro/sys/unique_fd.h"

namespace {

constexpr const char* kSuffix = ".dat";
constexpr const char* kHelperName = "KorvelHelper";

// How a nil string is logged: as "(null)".
const char* text_of(const nil_string& text) {
  return text ? text->c_str() : nullptr;
}

// The one door to a session's folder: nothing is made for an ID that names no session.
bool create_in_session(const nil_string& restore_id, const std::string& below) {
  return namesSession(restore_id) &&
         createFolder(sessionFolder(*restore_id) + below, kSessionPermissions);
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
  const std::string name = *restore_id + kSuffix;
  try {
    muro::move_file_into(*path, sessionFolder(*restore_id), name);
  } catch (...) {
    const std::string error = muro::system_error_string();  // before anything changes errno
    log.fmt_verbose("Failed to move file: %1%", error);
    return std::nullopt;
  }
  return sessionFolder(*restore_id) + "/" + name;
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
  const std::string folder = sessionFolder(*restore_id) + "/helper/";
  const std::string target = folder + kHelperName;
  try {
    // Opened first, so that it is this very file that becomes executable.
    const muro::unique_fd helper(::open(helper_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    muro::move_file_into(helper_path, folder, kHelperName);
    muro::set_executable_of(helper.get());
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
  platform::copy_outcome outcome{{false, std::nullopt}, false};
  std::string folder;
  std::string name;
  if (bundle_path && namesSession(restore_id)) {
    folder = sessionFolder(*restore_id) + "/app/";
    name = lastPathComponent(*bundle_path);
    outcome = platform::copy_item(*bundle_path, folder + name, rightsForAll());
  }
  if (!outcome.ok) {
    log.fmt_verbose("Failed to move bundle: %1%", text_of(outcome.description));
    return std::nullopt;
  }
  if (!outcome.has_rights) openBundleToAll(log, folder, name);
  return folder + name;
}
