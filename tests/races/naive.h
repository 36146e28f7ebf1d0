#pragma once

/// The file operations as one would write them first: a look by path, then an act by path. They are
/// the control of the races: where they lose, the race is one.

#include <string>

namespace naive {

/// Looks with lstat, lists with opendir and deletes by path.
void delete_recursive(const std::string& path);

/// Lists the tree, then changes mode and owner of all that was no link when it was listed.
void open_to_all(const std::string& path);

/// Copies a tree whose items are all 0777 afterwards.
void copy_open_to_all(const std::string& from, const std::string& to);

/// Looks with stat, then renames.
bool move_file(const std::string& from, const std::string& to);

/// Makes each missing folder of the path and then sets its mode.
bool create_folder(const std::string& path, unsigned mode);

}  // namespace naive
