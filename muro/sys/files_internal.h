#pragma once

/// The inner side of muro/sys/files.h, for files.cpp, xfile.cpp and their tests alone.

#include <dirent.h>

#include <atomic>
#include <optional>
#include <set>
#include <string>

namespace muro::detail {

/// The calls whose failures no test can provoke on a healthy system. Tests replace them.
extern std::atomic<char* (*)(const char*, char*)> g_realpath;
extern std::atomic<int (*)(DIR*)> g_closedir;

/// `closedir`, once: what is in `g_closedir` when no test is. Its caller repeats what reports EINTR,
/// as an interrupted close that left the stream open would ask for. The C library's does not leave
/// it open, so an interruption of it counts as success here and the stream is never touched again.
int close_stream_once(DIR* stream);

/// The path for the system. It would see only what stands in front of a zero byte, which is another
/// file; so such a path becomes the empty one, which every call refuses with ENOENT.
inline const char* os_path(const std::string& path) {
  return path.find('\0') == std::string::npos ? path.c_str() : "";
}

/// `get_exe_path` on what the system says; nil throws ":Error in 'get_exe_path'".
std::string exe_path_from(const std::optional<std::string>& system_path);

/// The set that `init_util_fs` makes. Empty, and read by nothing.
extern std::set<std::string>* g_util_fs_set;

}  // namespace muro::detail
