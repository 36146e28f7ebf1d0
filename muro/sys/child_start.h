#pragma once

/// Private to muro/sys/process: what happens between fork and exec.
///
/// Everything that allocates, searches or decides is done by the parent, before the fork, into a
/// `child_plan`; the child only carries the plan out. In a process with several threads the child
/// inherits locks that nobody will ever release, so it may call nothing but async-signal-safe
/// functions (signal-safety(7)).

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace process_priv {

/// The system calls that a test makes fail; constant-initialised. Written by tests alone, while no
/// child is being started.
struct system_calls {
  pid_t (*fork)();
  pid_t (*waitpid)(pid_t, int*, int);
  int (*kill)(pid_t, int);
};
extern constinit system_calls calls;

/// What a child has for its PATH, whatever this process has: the one that launchd gives its jobs
/// (launchd.plist(5)). This process may have been started from a shell, with folders in it that
/// others may write to, and what it starts runs as root.
inline constexpr char kChildPath[] = "/usr/bin:/bin:/usr/sbin:/sbin";

/// What a child is to do. It points into `program` and `args`, which must outlive it, into the
/// environment and into itself.
class child_plan {
 public:
  child_plan(const std::string& program, const std::vector<std::string>& args);
  child_plan(const child_plan&) = delete;
  child_plan& operator=(const child_plan&) = delete;

  /// Run in the program's folder, as "./" and its base name.
  void run_in_program_folder(const std::string& program);
  /// Run in `folder`, which must outlive the plan, by the program's absolute path.
  void run_in_folder(const std::string& program, const std::string& folder);
  /// Put these on 0, 1 and 2; an `error` of -1 leaves 2 as it is. Without this call all three stay.
  void place(int input, int output, int error);
  /// Leave these open too, and not close-on-exec; those that are not open now are passed over, so
  /// that none of them is a number which this library takes later. Call before the pipes are made.
  void keep(const std::set<int>& descriptors);
  /// Run the program in a grandchild, in a POSIX session of its own.
  void detach() { detached_ = true; }

  /// Forks. The parent gets the child's pid or -1 with errno of fork(2); the child carries out the
  /// plan and never returns. All signals wait meanwhile, so that no handler of the parent's runs in
  /// the child.
  pid_t start();

 private:
  [[noreturn]] void run() noexcept;
  void execute() noexcept;
  void close_others() const noexcept;
  bool place_standard_descriptors() const noexcept;
  void inherit_kept() const noexcept;

  std::vector<char*> argv_;        // null-terminated
  std::vector<char*> shell_argv_;  // null-terminated; 1 is for the script's path
  std::string path_variable_;
  std::vector<char*> environment_;       // null-terminated
  std::vector<std::string> candidates_;  // the paths to try, in order
  std::string first_argument_;           // the replaced argument 0
  std::string program_folder_;
  const char* folder_ = nullptr;  // null: stay
  std::vector<int> open_;         // not closed beside 0, 1 and 2; sorted
  std::vector<int> kept_;         // open_'s part that the caller asked for
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  bool detached_ = false;
  bool runs_nothing_ = false;
};

}  // namespace process_priv
