#include "muro/sys/child_start.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/user_switch.h"
#include "platform/platform.h"

extern char** environ;

namespace process_priv {

constinit system_calls calls{::fork, ::waitpid, ::kill};

namespace {

constexpr char kShell[] = "/bin/sh";

/// Holds back every signal of the calling thread for its lifetime. Keeps errno.
class signals_blocked {
 public:
  signals_blocked() {
    sigset_t all;
    sigfillset(&all);  // a macro on macOS: no scope in front
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~signals_blocked() {
    const muro::errno_guard keep;
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  signals_blocked(const signals_blocked&) = delete;
  signals_blocked& operator=(const signals_blocked&) = delete;

 private:
  sigset_t before_;
};

/// The paths that execvp(3) tries for `program`: itself if it has a slash, else one in each folder
/// of this process's PATH.
std::vector<std::string> candidates_for(const std::string& program) {
  if (program.empty()) return {};
  if (program.find('/') != std::string::npos) return {program};
  const char* const path = std::getenv("PATH");
  const std::string folders = path != nullptr ? path : kChildPath;
  std::vector<std::string> found;
  for (std::size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
    end = folders.find(':', start);
    const std::string folder = folders.substr(start, end - start);
    found.push_back((folder.empty() ? "." : folder) + "/" + program);
  }
  return found;
}

/// This process's environment, with `path_variable` instead of its own PATH.
std::vector<char*> environment_with(std::string& path_variable) {
  std::vector<char*> environment;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
    if (std::strncmp(*entry, "PATH=", 5) != 0) environment.push_back(*entry);
  environment.push_back(path_variable.data());
  environment.push_back(nullptr);
  return environment;
}

}  // namespace

child_plan::child_plan(const std::string& program, const std::vector<std::string>& args)
    : path_variable_(std::string("PATH=") + kChildPath),
      environment_(environment_with(path_variable_)),
      candidates_(candidates_for(program)) {
  // execve takes pointers to non-const and changes nothing.
  argv_.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& arg : args) argv_.push_back(const_cast<char*>(arg.c_str()));
  argv_.push_back(nullptr);
  shell_argv_ = {const_cast<char*>(kShell), nullptr};
  shell_argv_.insert(shell_argv_.end(), argv_.begin() + 1, argv_.end());
  // Cut at its zero byte a text would name another program, or another file to it.
  const auto holds_zero = [](const std::string& text) { return text.find('\0') != text.npos; };
  runs_nothing_ = holds_zero(program) || std::any_of(args.begin(), args.end(), holds_zero);
}

// The replaced argument 0 is this plan's own copy, made before the fork: after it nothing may
// allocate.
void child_plan::run_in_program_folder(const std::string& program) {
  program_folder_ = muro::dirname(program);
  folder_ = program_folder_.c_str();
  first_argument_ = "./" + muro::basename(program);
  argv_[0] = first_argument_.data();
  candidates_ = {first_argument_};
}

void child_plan::run_in_folder(const std::string& program, const std::string& folder) {
  folder_ = folder.c_str();
  runs_nothing_ |= folder.find('\0') != folder.npos;
  try {
    first_argument_ = muro::expand_filename(program);
    argv_[0] = first_argument_.data();
    candidates_ = {first_argument_};
  } catch (const muro::exception&) {
    // The working folder is gone. Under its relative name another program might be found in the
    // new folder, so none is run: the child ends itself, as for every failure of its own.
    runs_nothing_ = true;
  }
}

void child_plan::place(int input, int output, int error) {
  input_ = input;
  output_ = output;
  error_ = error;
  open_.insert(open_.end(), {input, output, error});
  std::sort(open_.begin(), open_.end());
}

void child_plan::keep(const std::set<int>& descriptors) {
  std::copy_if(descriptors.begin(), descriptors.end(), std::back_inserter(kept_),
               [](int fd) { return ::fcntl(fd, F_GETFD) != -1; });
  open_.insert(open_.end(), kept_.begin(), kept_.end());
  std::sort(open_.begin(), open_.end());
}

pid_t child_plan::start() {
  const muro::effective_user_gate as_ourselves;
  const signals_blocked no_signals;
  const pid_t pid = calls.fork();
  if (pid == 0) run();
  return pid;
}

// From here to the end of the file: the child. Only async-signal-safe calls; nothing allocates,
// locks, logs or throws.

namespace {

/// What `silent_terminate(false)` does, without leaving this file: the parent sees exit code -9.
[[noreturn]] void die() noexcept {
  ::kill(::getpid(), SIGKILL);
  for (;;) ::_exit(255);
}

/// Handlers of the parent's would run in the child once the mask is open, and the program would
/// inherit what is ignored, by this process or by whoever started it. A tool must not be started
/// with SIGPIPE ignored (it would write on into a closed pipe), deaf to a request to end, nor with
/// signals held back.
void restore_signals() noexcept {
  struct sigaction usual {};
  usual.sa_handler = SIG_DFL;
  sigemptyset(&usual.sa_mask);  // a macro on macOS: no scope in front
  for (int number = 1; number < NSIG; ++number) ::sigaction(number, &usual, nullptr);
  sigset_t none;
  sigemptyset(&none);  // a macro on macOS: no scope in front
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// The program is to be nobody's child here and to have no terminal. The process that the parent
/// waits for ends in every case: were it to run the program after a failed fork, the parent would
/// wait for that.
void detach_from_parent() noexcept {
  ::setsid();
  if (calls.fork() != 0) die();
}

/// Moves a descriptor that lies on another one's target out of the way.
bool lift(int& descriptor, int target) noexcept {
  if (descriptor > STDERR_FILENO || descriptor == target || descriptor == -1) return true;
  const int lifted = ::fcntl(descriptor, F_DUPFD, STDERR_FILENO + 1);
  if (lifted == -1) return false;
  ::close(descriptor);
  descriptor = lifted;
  return true;
}

/// Whether the search goes on after a failed attempt.
bool may_lie_elsewhere(int error) noexcept {
  return error == ENOENT || error == ENOTDIR || error == EACCES || error == ELOOP ||
         error == ENAMETOOLONG;
}

bool clear_close_on_exec(int descriptor) noexcept {
  return ::fcntl(descriptor, F_SETFD, 0) == 0;
}

/// Puts `descriptor` on `target` and closes it; what lies there already only has to survive exec.
bool put_on(int descriptor, int target) noexcept {
  if (descriptor == -1) return true;
  if (descriptor == target) return clear_close_on_exec(target);
  if (::dup2(descriptor, target) == -1) return false;
  ::close(descriptor);
  return true;
}

}  // namespace

/// The whole life of the child.
void child_plan::run() noexcept {
  close_others();
  if (input_ != -1 && !place_standard_descriptors()) die();
  inherit_kept();
  if (detached_) detach_from_parent();
  if (folder_ != nullptr && ::chdir(folder_) != 0) die();
  restore_signals();
  execute();
  die();
}

/// What execvp does, from calls that are on POSIX's list: the search through PATH is the parent's, so
/// that each name has a slash; a script without a first line goes to the shell. Returns only when
/// nothing can be executed.
void child_plan::execute() noexcept {
  if (runs_nothing_) return;
  for (std::string& path : candidates_) {
    ::execve(path.c_str(), argv_.data(), environment_.data());
    if (errno == ENOEXEC) {
      shell_argv_[1] = path.data();
      ::execve(kShell, shell_argv_.data(), environment_.data());
    }
    if (!may_lie_elsewhere(errno)) return;
  }
}

/// Closes every open descriptor but those of `open_`, gap by gap. Of 0, 1 and 2 the pipes take the
/// place, or they are inherited.
void child_plan::close_others() const noexcept {
  int first = STDERR_FILENO + 1;
  for (const int fd : open_) {
    if (fd > first) platform::close_descriptors(first, fd - 1);
    first = std::max(first, fd + 1);
  }
  platform::close_descriptors(first, INT_MAX);
}

/// Where the parent's own 0, 1 or 2 were closed, the pipes may lie on those numbers, in any order;
/// they are lifted off them first, or one dup2 would close the other pipe.
bool child_plan::place_standard_descriptors() const noexcept {
  int input = input_;
  int output = output_;
  int error = error_;
  return lift(input, STDIN_FILENO) && lift(output, STDOUT_FILENO) && lift(error, STDERR_FILENO) &&
         put_on(input, STDIN_FILENO) && put_on(output, STDOUT_FILENO) &&
         put_on(error, STDERR_FILENO);
}

void child_plan::inherit_kept() const noexcept {
  for (const int fd : kept_) clear_close_on_exec(fd);
}

}  // namespace process_priv
