#pragma once

/// A session's folder: restore file, helper copy, client bundle.

#include <string>

#include "platform/platform.h"

using platform::nil_string;

inline constexpr const char* kSessionsRoot = "/Library/VeskRuntime/sessions/";

nil_string restoreIDFromFile(const nil_string& path);
bool createFolder(const nil_string& path, unsigned permissions);
nil_string moveRestoreFileIfNeeded(const nil_string& path, const nil_string& restore_id);
nil_string moveHelper(const std::string& helper_path, const nil_string& restore_id);
nil_string moveAppBundle(const nil_string& bundle_path, const nil_string& restore_id);

/// Whether `restore_id` names a session: not nil, not empty, not "." and not "..", no "/" in it.
bool namesSession(const nil_string& restore_id);
