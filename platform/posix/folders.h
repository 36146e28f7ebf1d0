#pragma once

/// Walking a path name by name, for the folders beside this one.

#include <sys/types.h>

#include <string>

#include "platform/posix/descriptor.h"

namespace platform::detail {

/// A path that a system call would not cut short: not empty, no zero byte. Sets errno when not.
bool is_path(const std::string& path) noexcept;

/// `path` without the slashes at its end; "/" stays.
std::string without_trailing_slashes(std::string path);

/// The last name of `path`, slashes at its end not counted; "." for the root.
std::string last_name(const std::string& path);

/// What is in front of the last name: "/" or "." when there is nothing.
std::string parent_of(const std::string& path);

/// The folder that holds `path`, as `platform::open_folder` opens it. Not open on a failure, which
/// errno tells.
descriptor open_parent(const std::string& path);

/// `platform::create_folder` with the failure in errno.
bool make_folders(const std::string& path, mode_t mode);

}  // namespace platform::detail
