#pragma once

/// Looking at this process's descriptors, and running out of them on request.

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <stdexcept>

namespace test {

inline bool is_open(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) != -1;
}

/// The number that the next descriptor made will get.
inline int lowest_free() {
  const int probe = ::dup(0);
  if (probe == -1) throw std::runtime_error("dup");
  ::close(probe);
  return probe;
}

/// Every open descriptor of this process.
inline std::set<int> open_descriptors() {
  DIR* folder = ::opendir("/dev/fd");
  if (folder == nullptr) throw std::runtime_error("opendir");
  std::set<int> found;
  while (const dirent* entry = ::readdir(folder)) {
    if (entry->d_name[0] != '.') found.insert(std::atoi(entry->d_name));
  }
  found.erase(::dirfd(folder));
  ::closedir(folder);
  return found;
}

/// Lets the process open no descriptor numbered `first_refused` or above while it lives.
class descriptor_limit {
 public:
  explicit descriptor_limit(int first_refused) {
    if (::getrlimit(RLIMIT_NOFILE, &before_) != 0) throw std::runtime_error("getrlimit");
    rlimit now = before_;
    now.rlim_cur = static_cast<rlim_t>(first_refused);
    if (::setrlimit(RLIMIT_NOFILE, &now) != 0) throw std::runtime_error("setrlimit");
  }
  ~descriptor_limit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  descriptor_limit(const descriptor_limit&) = delete;
  descriptor_limit& operator=(const descriptor_limit&) = delete;

 private:
  rlimit before_{};
};

}  // namespace test
