#pragma once

/// What a system gives `platform::rename_new` to work with. Each returns 0, or -1 and sets errno.

namespace platform::detail {

/// The system's own rename that replaces nothing. errno is ENOSYS where the running system has
/// none, EINVAL or ENOTSUP where the file system has none.
int native_rename_new(const char* from, int folder, const char* to) noexcept;

/// A further name `to` in `folder` for the file `from`, which is no link. Replaces nothing.
int link_file(const char* from, int folder, const char* to);

/// The plain rename, which replaces what is at `to`.
int rename_over(const char* from, int folder, const char* to);

}  // namespace platform::detail
