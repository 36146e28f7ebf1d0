#pragma once

/// What this process holds at one moment, as /proc tells it.

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <ostream>
#include <string>

namespace soak {

struct process_state {
  long resident_kb = 0;
  long threads = 0;
  long descriptors = 0;
  long children = 0;  ///< running or not reaped
};

inline long count_entries(const char* folder) {
  long count = 0;
  DIR* const entries = ::opendir(folder);
  if (entries == nullptr) return -1;
  while (const dirent* const entry = ::readdir(entries)) count += entry->d_name[0] != '.';
  ::closedir(entries);
  return count;
}

/// The processes whose parent this one is.
inline long count_children() {
  long count = 0;
  DIR* const processes = ::opendir("/proc");
  if (processes == nullptr) return -1;
  while (const dirent* const entry = ::readdir(processes)) {
    if (std::atoi(entry->d_name) == 0) continue;
    std::ifstream status(std::string("/proc/") + entry->d_name + "/status");
    for (std::string word; status >> word;)
      if (word == "PPid:" && status >> word) count += std::atoi(word.c_str()) == ::getpid();
  }
  ::closedir(processes);
  return count;
}

inline process_state state_now() {
  process_state now;
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmRSS:") status >> now.resident_kb;
    if (word == "Threads:") status >> now.threads;
  }
  now.descriptors = count_entries("/proc/self/fd") - 1;  // the list itself is one
  now.children = count_children();
  return now;
}

inline std::ostream& operator<<(std::ostream& out, const process_state& state) {
  return out << "resident " << state.resident_kb << " kB, threads " << state.threads
             << ", descriptors " << state.descriptors << ", children " << state.children;
}

}  // namespace soak
