#include "tests/races/naive.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace naive {
namespace {

bool is_folder(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool is_link(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

std::vector<std::string> names_in(const std::string& path) {
  std::vector<std::string> names;
  DIR* const stream = ::opendir(path.c_str());
  while (const dirent* entry = stream != nullptr ? ::readdir(stream) : nullptr) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  if (stream != nullptr) ::closedir(stream);
  return names;
}

}  // namespace

void delete_recursive(const std::string& path) {
  if (!is_folder(path)) {
    ::unlink(path.c_str());
    return;
  }
  for (const std::string& name : names_in(path)) delete_recursive(path + "/" + name);
  ::rmdir(path.c_str());
}

void open_to_all(const std::string& path) {
  if (is_link(path)) return;
  const std::vector<std::string> names =
      is_folder(path) ? names_in(path) : std::vector<std::string>();
  if (::chown(path.c_str(), 0, 80) != 0) return;
  ::chmod(path.c_str(), 0777);
  for (const std::string& name : names) open_to_all(path + "/" + name);
}

void copy_open_to_all(const std::string& from, const std::string& to) {
  char target[4096] = {};
  std::error_code exists;
  if (is_link(from)) {
    if (::readlink(from.c_str(), target, sizeof target - 1) > 0)
      std::filesystem::create_symlink(target, to, exists);
    return;
  }
  if (is_folder(from)) {
    ::mkdir(to.c_str(), 0700);
    for (const std::string& name : names_in(from))
      copy_open_to_all(from + "/" + name, to + "/" + name);
  } else {
    std::ofstream(to) << std::ifstream(from).rdbuf();
  }
  ::chmod(to.c_str(), 0777);
}

bool move_file(const std::string& from, const std::string& to) {
  struct stat status;
  return ::stat(to.c_str(), &status) != 0 && ::rename(from.c_str(), to.c_str()) == 0;
}

bool create_folder(const std::string& path, unsigned mode) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string above = path.substr(0, slash);
    if (!is_folder(above) && ::mkdir(above.c_str(), 0755) != 0) return false;
  }
  return ::mkdir(path.c_str(), 0700) == 0 && ::chmod(path.c_str(), mode) == 0;
}

}  // namespace naive
