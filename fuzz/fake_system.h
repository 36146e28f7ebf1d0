#pragma once

/// A Mac in memory, for the targets that run the helper's front: the functions of muro/sys/files.h,
/// platform/platform.h and osx/job_files.h that change a system, or look at one, are defined by
/// fake_system.cpp a second time. The linker takes the first definition that it meets, which is
/// that of the target's own sources (its option -z muldefs); `start` makes sure that it did.
///
/// There are files with a content and folders, no links and no rights. Every change is checked
/// against what the request in hand permits before it is made.

#include <map>
#include <set>
#include <string>

namespace fake {

/// What the operations of one request may be. An empty text permits nothing.
struct permission {
  std::string move_from;
  std::string new_folder;      ///< with this one, the folders above it too
  std::string agent_label;     ///< to install and to remove
  std::string daemon_label;    ///< to remove
  std::string deleted_folder;  ///< with all in it
  bool may_install = false;    ///< move, make the folder, install the agent
};

/// How an operation fails.
enum class fault { none, exception, no_memory, other_exception, silent };

struct system {
  std::map<std::string, std::string> files;  ///< path to content
  std::set<std::string> folders;
  permission permitted;
  fault next_fault = fault::none;
  int good_operations = 0;  ///< so many succeed before `next_fault` strikes, once

  bool exists(const std::string& path) const;
  /// Makes the file, if its folder exists and nothing of that name does; whether it was made.
  bool make_file(const std::string& path, const std::string& content);
  void make_folders(std::string path);
  void remove_tree(const std::string& path);

  bool operator==(const system& other) const {
    return files == other.files && folders == other.folders;
  }
};

/// What the paths of real sockets begin with: they alone are real.
inline constexpr const char* kSocketPrefix = "/tmp/korvel_fuzz_";

/// The one system that the fakes work on.
extern system& mac;

/// Ends the process unless every fake is the one that the front calls. Leaves `mac` empty.
void start();

}  // namespace fake
