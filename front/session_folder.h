#pragma once

/// A session's folder: what must outlive the user's logout so that the session can be resumed.
///
///     /Library/VeskRuntime/sessions/ID/              0777
///         ID.dat                                     the restore file, moved here
///         helper/KorvelHelper                        the helper, moved here
///         app/Korvel.app/...                         the client bundle, copied here
///
/// ID is the restore ID: the base name of the restore file without ".dat". It also names the
/// session's launchd jobs and its endpoint.
///
/// Every function here logs its own failure, in one line, through a log named after itself, and
/// throws nothing for a failure of the file system. No argument, nil included, makes one crash.
/// They keep no state; two threads may call them for different sessions.

#include <string>

#include "platform/platform.h"

using platform::nil_string;

/// Where all session folders lie; ends in "/".
inline constexpr const char* kSessionsRoot = "/Library/VeskRuntime/sessions/";

/// Deliberate: every folder made here is open to all users, and so is the bundle copy. A client
/// that runs as the user must be able to use its session's files.
inline constexpr unsigned kSessionPermissions = 0777;

/// Whether `restore_id` may name a session. Not when it is nil, empty, "." or "..", or holds a "/"
/// or a zero byte: together with the sessions root such an ID would name the root itself, a folder
/// outside it or, to the system, a different session. The functions here and in installation.h
/// fail for such an ID with their usual message and touch nothing.
bool namesSession(const nil_string& restore_id);

/// The folder of the session, without a "/" at the end. Only for an ID that names a session.
std::string sessionFolder(const std::string& restore_id);

/// The restore ID of a restore file: its base name without ".dat"; nil when `path` is nil or the
/// base name does not end so. Deliberate: every ".dat" in the base name goes, not only the last
/// ("a.dat.dat" gives "a", "x.datum.dat" gives "xum"). The result need not name a session: the
/// base name ".dat" gives the empty text. Looks at the text only, not at the file.
nil_string restoreIDFromFile(const nil_string& path);

/// Makes the folder with those permission bits, and missing folders above it. True when it exists
/// afterwards; an existing one keeps its permissions.
/// Logs "Failed to create directory: %1%" with the system's description.
bool createFolder(const nil_string& path, unsigned permissions);

/// Moves the restore file into the session folder, which is made when missing, and gives its new
/// path; nil when that failed. Despite the name it moves whenever the file exists. It is a rename:
/// at every instant the file is at the old path or the new one, and one that stands at the new
/// path already is never replaced.
/// Logs "Restore file does not exist: %1%", "Failed to create session folder" or
/// "Failed to move file: %1%" with the system's error text.
nil_string moveRestoreFileIfNeeded(const nil_string& path, const nil_string& restore_id);

/// Moves the helper at `helper_path`, as a rule the running executable, to "helper/KorvelHelper" in
/// the session folder, makes it executable and gives its new path; nil when that failed.
/// Logs "Helper file %1% does not exist", "Failed to create helper folder" or
/// "Failed to move file to %1%: %2%" with the system's error text.
nil_string moveHelper(const std::string& helper_path, const nil_string& restore_id);

/// Copies (despite the name) the client bundle into "app/" in the session folder, opens the copy to
/// all users (0777, owner root, group admin), and gives its path; nil when the copy failed, which
/// leaves what was copied so far. An item whose attributes cannot be set does not stop the others.
/// Logs "Failed to create bundle folder" and goes on, "Failed to move bundle: %1%", and goes on
/// after "failed to set permission %1%" and "failed to set permissions for %1%:::%2%".
nil_string moveAppBundle(const nil_string& bundle_path, const nil_string& restore_id);
