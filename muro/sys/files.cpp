#include "muro/sys/files.h"

#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <initializer_list>
#include <utility>

#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/files_internal.h"
#include "muro/sys/files_walk.h"
#include "muro/sys/strings.h"
#include "muro/sys/unique_fd.h"
#include "platform/platform.h"

namespace muro {

unsigned user_id_override = 0;

namespace detail {

constinit std::atomic<char* (*)(const char*, char*)> g_realpath{::realpath};
constinit std::atomic<int (*)(DIR*)> g_closedir{close_stream_once};
constinit std::set<std::string>* g_util_fs_set = nullptr;

}  // namespace detail

namespace {

using detail::os_path;

// How every failure here leaves. The guard goes out of scope while the exception is on its way
// already, so nothing that making and throwing it does can hide the failed call's errno.

[[noreturn]] void fail(const char* function) {
  const errno_guard keep;
  throw exception::function(function);
}

[[noreturn]] void fail(const char* function, const char* call, const std::string& path) {
  const errno_guard keep;
  throw exception::system_error_context(function, call, path);
}

bool is_dot_entry(const std::string& name) {
  return name == "." || name == "..";
}

bool resolve(const std::string& path, std::string& resolved) {
  char buffer[PATH_MAX];
  if (detail::g_realpath.load()(os_path(path), buffer) == nullptr) return false;
  resolved = buffer;
  return true;
}

void append_component(std::string& folder, const std::string& name) {
  if (!ends_with(folder, "/")) folder += '/';
  folder += name;
}

/// Cuts `path` at the last `separator`; false when it holds none.
bool cut_at_last(std::string& path, char separator) {
  const std::size_t at = path.rfind(separator);
  if (at == std::string::npos) return false;
  path.erase(at);
  return true;
}

void erase_through_last(std::string& path, char separator) {
  const std::size_t at = path.rfind(separator);
  if (at != std::string::npos) path.erase(0, at + 1);
}

}  // namespace

std::string get_current_dir() {
  char buffer[16383];
  if (::getcwd(buffer, sizeof buffer) == nullptr) fail("get_current_dir");
  return buffer;
}

std::string expand_filename(const std::string& path) {
  std::string resolved;
  if (resolve(path, resolved)) return resolved;
  if (!starts_with(path, "/")) {
    resolved = expand_filename(get_current_dir());
    append_component(resolved, path);
    return resolved;
  }
  // Climbs to the deepest ancestor that exists. A loop, because a path of nothing but separators
  // and single letters would be a recursion of half its length. `missing` holds the names that were
  // left behind on the way, the last of the path first.
  std::vector<std::string> missing;
  std::string existing = path;
  do {
    std::string parent = dirname(existing);
    if (parent == existing) fail("expand_filename");
    missing.push_back(basename(existing));
    existing.swap(parent);
  } while (!resolve(existing, resolved));
  for (; !missing.empty(); missing.pop_back()) append_component(resolved, missing.back());
  return resolved;
}

std::string dirname(std::string path) {
  const bool absolute = starts_with(path, "/") || (path.size() >= 2 && path[1] == ':');
  const bool had_slash = cut_at_last(path, '/');
  const bool had_backslash = cut_at_last(path, '\\');
  if (!had_slash && !had_backslash) return ".";
  // What is left of an absolute path without any separator is the root, or a drive.
  if (absolute && path.find_first_of("/\\") == std::string::npos) {
    return path.empty() ? "/" : path + '\\';
  }
  return path;
}

std::string basename(std::string path) {
  erase_through_last(path, '/');
  erase_through_last(path, '\\');
  return path;
}

namespace {

// A target that exists is told before anything is tried; one that appears later is not replaced
// either.
void move_to(const std::string& from, int folder, const std::string& to) {
  struct stat status;
  if (platform::status_at(folder, os_path(to), status, platform::links::followed) == 0) {
    errno = EEXIST;  // the look succeeded and set none, but the log should tell the reason
    fail("move_file");
  }
  if (platform::rename_new(os_path(from), folder, os_path(to)) != 0) fail("move_file");
}

}  // namespace

void move_file(std::string from, std::string to) {
  move_to(from, AT_FDCWD, to);
}

void move_file_into(const std::string& from, const std::string& folder, const std::string& name) {
  const unique_fd target(platform::open_folder(folder));
  if (!target.is_open()) fail("move_file");
  move_to(from, target.get(), name);
}

bool file_exists(std::string path) {
  struct stat status;
  return ::stat(os_path(path), &status) == 0;
}

namespace {

/// Each class's execute bit lies two below its read bit.
mode_t with_executable_bits(mode_t mode) {
  const auto executable = (mode & (S_IRUSR | S_IRGRP | S_IROTH)) >> 2;
  return static_cast<mode_t>((mode & 07777) | executable);
}

}  // namespace

void set_executable(std::string path) {
  struct stat status;
  if (::stat(os_path(path), &status) != 0) fail("get_file_mode");
  if (::chmod(os_path(path), with_executable_bits(status.st_mode)) != 0) fail("set_executable");
}

void set_executable_of(int file) {
  struct stat status;
  if (::fstat(file, &status) != 0) fail("get_file_mode");
  if (::fchmod(file, with_executable_bits(status.st_mode)) != 0) fail("set_executable");
}

void remove_directory(std::string path) {
  if (::rmdir(os_path(path)) != 0) fail("remove_directory", "rmdir", path);
}

void delete_file(std::string path) {
  if (::unlink(os_path(path)) != 0) fail("delete_file", "unlink", path);
}

namespace {

/// Looks at the entry itself: a link to a folder is no folder, or a tree could lead out of itself.
bool is_folder_itself(const std::string& path) {
  struct stat status;
  if (::lstat(os_path(path), &status) != 0) fail("delete_recursive");
  return S_ISDIR(status.st_mode);
}

bool remove_step(const folder_walk& walk, bool is_folder, platform::file_remover& files) {
  const char* const name = walk.name().c_str();
  if (!is_folder) return files.remove(walk.holder(), name) == 0;
  return platform::remove_at(walk.holder(), name, platform::entry_kind::folder) == 0;
}

/// Deletes all that can be deleted in `folder`. Returns the `errno` of the last failure; 0: none.
int delete_entries(const std::string& folder) {
  constexpr int kItself = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
  using step = folder_walk::step;
  int failed = 0;
  platform::file_remover files;
  folder_walk walk(unique_fd(platform::open_at(AT_FDCWD, os_path(folder), kItself)));
  for (step at = walk.next(); at != step::end; at = walk.next()) {
    if (at == step::folder) continue;
    if (at == step::lost) {
      failed = walk.error();
    } else if (!remove_step(walk, at == step::left || walk.is_folder(), files)) {
      failed = errno;
    }
  }
  return failed;
}

}  // namespace

void delete_recursive(std::string path) {
  if (!is_folder_itself(path)) {
    delete_file(path);
    return;
  }
  // Tried even after a failure: it is rmdir that tells why a folder with something left in it
  // stays.
  const int failed = delete_entries(path);
  remove_directory(path);
  if (failed != 0) {
    errno = failed;
    fail("delete_recursive");
  }
}

void find_files(std::vector<std::string>& out, const std::string& pattern) {
  for (find_files_os found(pattern); found.next();) {
    if (!is_dot_entry(found.path())) out.push_back(found.path());
  }
}

find_files_os::find_files_os(const std::string& pattern) {
  // After a failure there may be a partial result; it is freed, not shown.
  if (::glob(os_path(pattern), 0, nullptr, &result_) == 0) cursor_ = 0;
}

find_files_os::~find_files_os() {
  const errno_guard keep;
  ::globfree(&result_);
}

bool find_files_os::next() {
  if (cursor_ < 0 || cursor_ >= static_cast<long>(result_.gl_pathc)) return false;
  path_ = result_.gl_pathv[cursor_++];
  return true;
}

namespace {

/// The home folder that the user data base has for `uid`; false when it has no such user.
bool home_of_user(uid_t uid, std::string& home) {
  constexpr std::size_t kEnough = 1 << 20;
  passwd entry;
  passwd* found = nullptr;
  std::vector<char> buffer(1024);
  // The reentrant call, since any thread may be here.
  while (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kEnough) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) return false;
  home = found->pw_dir;
  return true;
}

}  // namespace

std::string user_dir() {
  std::string home;
  if (user_id_override != 0 && home_of_user(user_id_override, home)) return home;
  for (const char* const variable : {"HOME", "TMPDIR"}) {
    if (const char* const value = ::getenv(variable)) return value;
  }
  fail("_get_home_dir");
}

std::string detail::exe_path_from(const std::optional<std::string>& system_path) {
  if (!system_path) fail("get_exe_path");
  return expand_filename(*system_path);
}

std::string get_exe_path() {
  return detail::exe_path_from(platform::executable_path());
}

void init_util_fs() {
  // Nothing reads the set; a host that walks the start-up steps expects it to be made here.
  if (detail::g_util_fs_set == nullptr) detail::g_util_fs_set = new std::set<std::string>;
}

}  // namespace muro
