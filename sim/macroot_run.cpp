// Makes a private Mac root and runs a command in it; --help tells the rest.

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstdio>

#include "sim/first_process.h"
#include "sim/mac_tree.h"
#include "sim/namespaces.h"
#include "sim/posix_kit.h"
#include "sim/run_options.h"

namespace macroot {
namespace {

constexpr int kWrongUse = 2;
constexpr int kNoRoot = 77;

/// A descriptor that becomes readable when the caller's parent ends. Its thread may end earlier,
/// which is why the parent-death signal would not do. Where the kernel has none: that signal.
unique_fd watch_parent() {
  unique_fd parent(static_cast<int>(::syscall(SYS_pidfd_open, ::getppid(), 0)));
  if (parent.get() < 0) ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  return parent;
}

/// Catches the launcher's signals from before there is a root on, so that none is lost to a command
/// that runs already.
class signal_watch {
 public:
  signal_watch() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGCHLD);
    for (const int signal : kPassedSignals) ::sigaddset(&set, signal);
    ::sigprocmask(SIG_BLOCK, &set, &before_);
    signals_ = unique_fd(check(::signalfd(-1, &set, SFD_CLOEXEC), "signalfd"));
  }

  int get() const { return signals_.get(); }
  /// For the root's first process: the signals are as the launcher's caller had them.
  void leave() const { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
  unique_fd signals_;
};

/// Passes on a signal that another process sent; the terminal's reach the command by themselves.
void pass_on(pid_t first, int signals) {
  signalfd_siginfo info{};
  if (::read(signals, &info, sizeof info) != sizeof info || info.ssi_signo == SIGCHLD) return;
  if (info.ssi_code != SI_KERNEL) ::kill(first, static_cast<int>(info.ssi_signo));
}

int status_of(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Waits for the root's end; ends it when the caller's parent has gone.
int supervise(pid_t first, int signals, int parent) {
  for (;;) {
    int status = 0;
    if (::waitpid(first, &status, WNOHANG) == first) return status_of(status);
    pollfd events[] = {{signals, POLLIN, 0}, {parent, POLLIN, 0}};
    if (::poll(events, 2, -1) < 0 && errno != EINTR) throw_errno("poll");
    if (events[0].revents != 0) pass_on(first, signals);
    if (events[1].revents != 0) ::kill(first, SIGKILL);
    if (events[1].revents != 0) parent = -1;
  }
}

void tell(int fd, const first_process& root) {
  if (fd < 0) return;
  const std::string line = std::to_string(root.pid) + " " + name_of(root.mode) + "\n";
  check(::write(fd, line.data(), line.size()), "write to --info-fd");
  ::close(fd);
}

first_process make_root(const run_options& options, const signal_watch& signals) {
  return start_namespaced([&](id_mode mode, const std::function<void()>& ready) {
    signals.leave();
    enter_mac_tree(options, mode);
    check(::sethostname("mac", 3), "sethostname");
    if (options.info_fd >= 0) ::close(options.info_fd);
    ready();
    if (options.as_init) run_command(options, name_of(mode));
    run_as_init(options, name_of(mode));
  });
}

int run(const run_options& options) {
  const unique_fd parent = watch_parent();
  try {
    const signal_watch signals;
    const first_process root = make_root(options, signals);
    tell(options.info_fd, root);
    return supervise(root.pid, signals.get(), parent.get());
  } catch (const failure& error) {
    std::fprintf(stderr, "macroot-run: this machine allows no private root (%s)\n", error.what());
    return options.required ? 1 : kNoRoot;
  }
}

}  // namespace
}  // namespace macroot

int main(int argc, char** argv) {
  try {
    bool help = false;
    const macroot::run_options options = macroot::parse_options(argc, argv, help);
    if (!help) return macroot::run(options);
    std::fputs(macroot::kHelp, stdout);
    return 0;
  } catch (const macroot::usage_error& error) {
    std::fprintf(stderr, "macroot-run: %s\n", error.what());
    return macroot::kWrongUse;
  }
}
