#pragma once

/// File-system operations on paths held as byte strings.

#include <glob.h>

#include <string>
#include <vector>

namespace muro {

std::string get_current_dir();
std::string expand_filename(const std::string& path);
std::string dirname(std::string path);
std::string basename(std::string path);
void move_file(std::string from, std::string to);
bool file_exists(std::string path);
void set_executable(std::string path);
void remove_directory(std::string path);
void delete_file(std::string path);
void delete_recursive(std::string path);
void find_files(std::vector<std::string>& out, const std::string& pattern);
std::string user_dir();
std::string get_exe_path();
void init_util_fs();

/// The user whose home folder `user_dir` prefers; 0 means none. Set by nothing in this system.
extern unsigned user_id_override;

/// Walks the result of one `glob` call.
class find_files_os {
 public:
  explicit find_files_os(const std::string& pattern);
  ~find_files_os();
  find_files_os(const find_files_os&) = delete;
  find_files_os& operator=(const find_files_os&) = delete;

  /// Moves to the next entry; false when there is none.
  bool next();
  const std::string& path() const { return path_; }

 private:
  glob_t result_{};
  long cursor_ = -1;
  std::string path_;
};

}  // namespace muro
