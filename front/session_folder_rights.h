#pragma once

/// Opening the copy of the client bundle to all users. For session_folder.cpp.

#include <optional>
#include <string>

#include "muro/core/errlog.h"
#include "platform/platform.h"

/// What every item of the copy is given: the mode 0777, the owner "root" and the group "admin".
/// Nullopt when one of these accounts does not exist.
std::optional<platform::item_rights> rightsForAll();

/// Gives the item `name` of `folder` and every item below it these rights and tells which cannot have
/// them: the way for a copy that did not give them to all of its items itself. One walk from open
/// folder to open folder: nothing that others put into the copy meanwhile makes it change an item
/// elsewhere. Not touched therefore are
///
///   - a link: what it leads to may lie anywhere, and inside the bundle is an item of its own. The
///     link's own owner and mode keep nobody from using it. One that leads nowhere is told;
///   - a regular file with more names than one, which may be a file of some other place: EMLINK;
///   - a device, a pipe, a socket: ENOTSUP.
///
/// An item that fails does not stop the others. Logs "failed to set permission %1%" for the item itself
/// and "failed to set permissions for %1%:::%2%" for an item below it, with the system's text for
/// the reason; there is none when an account does not exist, which is "(null)" and "Unknown error".
void openBundleToAll(const muro::fmt_dbg& log, const std::string& folder, const std::string& name);
