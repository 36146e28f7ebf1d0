#pragma once

/// The command line of `macroot-run`.

#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace macroot {

/// A person of the simulated Mac: a login name and a user id.
struct user_entry {
  std::string name;
  uid_t uid;
};

/// A folder or file of the machine shown in the root; both paths absolute, the source resolved.
struct bind_entry {
  std::string source;
  std::string target;
  bool writable;
};

struct run_options {
  std::string release = "10.11.6";
  std::vector<user_entry> users;       ///< alice 501 and bob 502 unless others are named
  uid_t console_uid = 0;               ///< who owns /dev/console; 0 is the login window
  bool client = true;                  ///< whether /Applications/Korvel.app is there
  bool required = false;               ///< a machine without private roots is a failure, not a skip
  bool as_init = false;                ///< the command is process 1 itself
  int info_fd = -1;                    ///< where the line about the finished root goes, or -1
  std::string work_folder = "/";       ///< the command's current folder, seen from inside
  std::string build_folder;            ///< shown at its own path and at /build; empty for none
  std::string source_folder;           ///< shown at its own path; empty for none
  std::vector<bind_entry> binds;       ///< further folders, in the order given
  std::vector<std::string> variables;  ///< NAME=VALUE on top of the root's environment
  std::vector<std::string> command;    ///< program (looked up in PATH) and arguments, never empty
};

/// Wrong use of the command line; the text is the line to show.
class usage_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The text of `--help`.
extern const char* const kHelp;

/// Reads the command line. Throws `usage_error` for an unknown option, a missing or malformed
/// value, a bind source that does not exist, or a missing command. The folders of the build that
/// made this launcher are the defaults for `build_folder` and `source_folder`, left out where they
/// no longer exist. `help` is set, and nothing else of the result valid, when help was asked for.
run_options parse_options(int argc, char** argv, bool& help);

}  // namespace macroot
