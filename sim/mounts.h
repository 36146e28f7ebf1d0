#pragma once

/// The mounts of a root. While it is built, the machine's own file system stands at `kMachine`.
/// Source: mount(2), pivot_root(2), mount_setattr(2).

#include <string>

namespace macroot {

inline constexpr const char* kMachine = "/.machine";

/// Makes an empty file system in memory the root of the calling process, with the machine's own
/// below `kMachine`.
void pivot_into_memory();

/// Takes the machine's own file system away.
void detach_machine();

/// Shows `source` (a path of the machine, links resolved) at `target`, making the folders and the
/// mount point that are missing. Everything mounted below comes along.
void show(const std::string& source, const std::string& target, bool writable);

/// As `show`, for what a machine may lack: gives false then.
bool show_if_present(const std::string& source, const std::string& target, bool writable);

/// A process file system that shows the root's own processes.
void mount_proc(const std::string& target);

/// Terminals of the root's own; without them where the machine forbids it.
void mount_terminals(const std::string& target);

/// Makes `path` and every missing folder above it, 0755.
void make_folders(const std::string& path);

}  // namespace macroot
