#pragma once

/// File-system operations on paths held as byte strings.
///
/// Every failure is a `muro::exception`, never a return code. "Throws NAME" below means the text
/// ":Error in 'NAME'"; "throws NAME/CALL" means the text of
/// `muro::exception::system_error_context(NAME, CALL, path)`, with the path in brackets. In either
/// case `errno` still holds the reason while the exception is caught, so that a caller may log
/// `system_error_string()`.
///
/// Paths go to the system as they stand, but for one kind: a path with a zero byte in it names no
/// file, where the system would see only the part in front of the zero; it fails with ENOENT.
/// Nothing is retried, no lock is taken, any thread may call. Relative paths depend on the
/// process-wide working folder.

#include <glob.h>

#include <string>
#include <vector>

namespace muro {

/// The working folder. Throws "get_current_dir".
std::string get_current_dir();

/// The absolute form of `path`. What exists is resolved by the system, links, "." and ".."
/// included. A relative path that does not exist is appended to the resolved working folder as it
/// is written; of an absolute one the deepest folder that exists is resolved and the missing rest
/// appended. Throws "expand_filename" when not even the root resolves, "get_current_dir" when there
/// is no working folder.
std::string expand_filename(const std::string& path);

/// The part in front of the last separator, without it; "." when there is none. Both "/" and "\"
/// separate, and a second letter ":" makes a path absolute like a leading "/". A separator at the
/// end is one like any other: "/a/b/" gives "/a/b". Never fails.
/// Deliberate: the last "/" is cut first and then the last "\" of the rest, so "a\b/c" gives "a";
/// and a bare drive gets a backslash whatever the separator was: "C:/x" gives "C:\".
std::string dirname(std::string path);

/// What follows the last "/" and the last "\" after it: "/a/b/" gives "". Never fails.
std::string basename(std::string path);

/// Renames `from` to `to`. Throws "move_file" when `to` exists (`errno` EEXIST) or the renaming
/// fails; then nothing has moved. Deliberate: nothing is overwritten, also no target that appears
/// in the last instant and no link that leads nowhere (`platform::rename_new` tells the limits),
/// and nothing is copied when the two lie on different file systems (EXDEV). What is moved is the
/// entry itself, whatever its kind: it is not opened.
void move_file(std::string from, std::string to);

/// `move_file` to the entry `name` of `folder`, for a folder in which others may write: it is opened
/// as `platform::open_folder` does, so that no link leads the file elsewhere.
void move_file_into(const std::string& from, const std::string& folder, const std::string& name);

/// True exactly when `stat` succeeds, so false for a link that leads nowhere.
bool file_exists(std::string path);

/// Gives each class of users that may read the file the right to execute it. A file that nobody
/// may read gains nothing. Throws "get_file_mode", "set_executable".
void set_executable(std::string path);

/// `set_executable` for the open file `file`, whatever has become of its name.
void set_executable_of(int file);

/// Throws "remove_directory"/"rmdir".
void remove_directory(std::string path);

/// Throws "delete_file"/"unlink".
void delete_file(std::string path);

/// Deletes a file, a link or a whole tree; no link is followed, none that is put into the tree
/// meanwhile either, and neither stack nor descriptors grow with the depth. In a tree the first
/// failure does not end the work: all that can go goes. Throws "delete_recursive" when `path` cannot be looked
/// at, or when an entry failed although its folder went in the end; "delete_file"/"unlink" for a
/// `path` that is no folder; "remove_directory"/"rmdir" for a folder that stays (`errno` ENOTEMPTY
/// when entries failed).
void delete_recursive(std::string path);

/// Appends the paths that POSIX `glob` finds for `pattern`, in its order (sorted), without the
/// entries "." and "..". No match, an unreadable folder and every other failure append nothing.
void find_files(std::vector<std::string>& out, const std::string& pattern);

/// The home folder: of `user_id_override` if that is set and known, else the environment's HOME,
/// else TMPDIR, as they stand. Throws "_get_home_dir" when neither is set.
std::string user_dir();

/// The running executable, links resolved. Throws "get_exe_path".
std::string get_exe_path();

/// A step of the runtime's start: makes the file layer's set, once.
void init_util_fs();

/// The user whose home folder `user_dir` prefers; 0 means none. Set by nothing in this system.
extern unsigned user_id_override;

/// Walks the result of one `glob` call, "." and ".." included. One thread at a time.
class find_files_os {
 public:
  explicit find_files_os(const std::string& pattern);
  ~find_files_os();
  find_files_os(const find_files_os&) = delete;
  find_files_os& operator=(const find_files_os&) = delete;

  /// Moves to the next entry, at first to the first one; false when there is none.
  bool next();
  /// The entry moved to last; empty before the first.
  const std::string& path() const { return path_; }

 private:
  glob_t result_{};
  long cursor_ = -1;  // the index of the next entry; -1: no results
  std::string path_;
};

}  // namespace muro
