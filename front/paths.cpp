#include "front/paths.h"

namespace {

void drop_trailing_slashes(std::string& path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
}

}  // namespace

std::string lastPathComponent(std::string path) {
  drop_trailing_slashes(path);
  if (path == "/") return path;
  return path.substr(path.find_last_of('/') + 1);
}

std::string appendPathComponent(std::string path, const std::string& component) {
  drop_trailing_slashes(path);
  if (path.empty() || path.back() != '/') path += '/';
  return path + component;
}
