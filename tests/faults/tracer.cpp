#include "tests/faults/tracer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>

#include "tests/faults/call_names.h"
#include "tests/faults/traced_process.h"

namespace faults {
namespace {

using clock = std::chrono::steady_clock;

constexpr int kRest_ms = 3;        // without any event: the process has come to rest
constexpr int kRestless_ms = 300;  // and when it does not within this time
constexpr int kOrphans_ms = 3000;  // for programs that the process has started and not waited for

// Where the kernel keeps the registers that carry a call's arguments.
constexpr std::size_t kArgument[] = {offsetof(user, regs.rdi), offsetof(user, regs.rsi),
                                     offsetof(user, regs.rdx), offsetof(user, regs.r10),
                                     offsetof(user, regs.r8),  offsetof(user, regs.r9)};

struct tracee {
  std::string who;
  bool of_main = false;  ///< a thread of the process itself, no child
  bool counted = false;
  bool in_call = false;
  uid_t euid = 0;
  int children = 0;
  std::string name;  ///< of the call it is in
  int number = 0;
  std::string detail;
  std::uint64_t arguments[6] = {};
  std::map<std::string, int> made;
  int error = 0;            ///< to be given back when the call ends
  bool fake_break = false;  ///< a failing brk gives the old break
  int changed = -1;         ///< an argument to be put back when the call ends
  iovec first_part{};       ///< of a message that was shortened
  std::uint64_t parts = 0;
};

std::vector<char*> pointers(const std::vector<std::string>& words) {
  std::vector<char*> all;
  for (const std::string& word : words) all.push_back(const_cast<char*>(word.c_str()));
  all.push_back(nullptr);
  return all;
}

class run {
 public:
  run(const job& what, int output, int step_output, const report& tell)
      : job_(what),
        step_output_(step_output),
        tell_(tell),
        limit_(clock::now() + std::chrono::milliseconds(what.limit_ms)) {
    main_ = start(job_.command, job_.environment, output, true);
    int status = 0;
    if (::waitpid(main_, &status, __WALL) != main_ || !WIFSTOPPED(status))
      throw std::runtime_error("cannot trace " + job_.command[0]);
    ::ptrace(PTRACE_SETOPTIONS, main_, nullptr,
             PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                 PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC | PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
    tracee& first = tracees_[main_];
    first.who = "m";
    first.of_main = true;
    resume(main_);
  }

  void finish() {
    while (!tracees_.empty() || step_ > 0) take_event();
    reap_orphans();
    tell_("hits " + std::to_string(hits_));
    tell_(end_);
  }

 private:
  static pid_t start(const std::vector<std::string>& command,
                     const std::vector<std::string>& environment, int output, bool traced) {
    const std::vector<char*> words = pointers(command);
    const std::vector<char*> variables = pointers(environment);
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid > 0) return pid;
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(::open("/dev/null", O_RDONLY), 0);
    ::dup2(output, 1);
    ::dup2(output, 2);
    ::close_range(3, ~0U, 0);
    ::setsid();
    if (traced) {
      ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      ::raise(SIGSTOP);
    }
    ::execve(words[0], words.data(), variables.data());
    ::_exit(127);
  }

  void resume(pid_t pid, int signal = 0) {
    ::ptrace(PTRACE_SYSCALL, pid, nullptr, static_cast<long>(signal));
  }

  // One event, or what is to be done when none comes.
  void take_event() {
    int status = 0;
    const pid_t pid = ::waitpid(-1, &status, __WALL | WNOHANG);
    if (pid > 0) {
      last_event_ = clock::now();
      return handle(pid, status);
    }
    if (pid < 0) {  // whoever is left has been lost
      tracees_.clear();
      step_ = 0;
      return;
    }
    if (clock::now() > limit_) return give_up();
    if (rests()) return next_step();
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    const timespec tick{0, 1000000};
    ::sigtimedwait(&child, nullptr, &tick);
  }

  // With something left to be told to: blocked, all of it, for a while and with no child to wait
  // for; or listening already, and busy for so long that it will not come to rest.
  bool rests() const {
    if (step_ != 0 || next_step_ >= job_.steps.size() || tracees_.count(main_) == 0) return false;
    if (listens_ && clock::now() - last_step_ > std::chrono::milliseconds(kRestless_ms))
      return true;
    for (const auto& [pid, one] : tracees_)
      if (!one.counted || !one.in_call || !is_blocking(one.name)) return false;
    return clock::now() - last_event_ > std::chrono::milliseconds(kRest_ms) && !has_children();
  }

  static bool is_blocking(const std::string& name) {
    return name == "poll" || name == "ppoll" || name == "futex_wait" || name == "pause" ||
           name == "accept" || name == "rt_sigsuspend";
  }

  bool has_children() const {
    for (const auto& [pid, one] : tracees_) {
      const std::string process = std::to_string(main_);
      std::ifstream children("/proc/" + process + "/task/" + std::to_string(pid) + "/children");
      pid_t child = 0;
      if (children >> child) return true;
    }
    return false;
  }

  void next_step() {
    const std::vector<std::string>& command = job_.steps[next_step_++];
    last_event_ = last_step_ = clock::now();
    if (command == std::vector<std::string>{"term"}) {
      ::kill(main_, SIGTERM);
      return;
    }
    step_ = start(command, {}, step_output_, false);
  }

  void give_up() {
    if (!gave_up_) {
      std::string line = "hang";
      for (const auto& [pid, one] : tracees_)
        line += " " + one.who + "/" + (one.in_call ? one.name : "running");
      tell_(line);
      gave_up_ = true;
    }
    for (const auto& [pid, one] : tracees_) ::kill(pid, SIGKILL);
    if (step_ > 0) ::kill(step_, SIGKILL);
    limit_ = clock::now() + std::chrono::seconds(1);
  }

  void handle(pid_t pid, int status) {
    if (pid == step_) {
      if (WIFSTOPPED(status)) return;
      step_ = 0;
      last_step_ = clock::now();
      tell_("step " + std::to_string(status));
      return;
    }
    if (WIFEXITED(status) || WIFSIGNALED(status)) return ended(pid, status);
    if (!WIFSTOPPED(status)) return;
    const auto known = tracees_.find(pid);
    if (known == tracees_.end()) {
      early_.insert(pid);  // its maker's own event is still to come
      return;
    }
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    if (event != 0) return handle_event(pid, known->second, event);
    if (signal == (SIGTRAP | 0x80)) return handle_call(pid, known->second);
    resume(pid, signal == SIGSTOP || signal == SIGTRAP ? 0 : signal);
  }

  void ended(pid_t pid, int status) {
    tracees_.erase(pid);
    if (pid != main_) return;
    end_ = WIFEXITED(status) ? "end exit " + std::to_string(WEXITSTATUS(status))
                             : "end signal " + std::to_string(WTERMSIG(status));
  }

  void handle_event(pid_t pid, tracee& one, int event) {
    if (event == PTRACE_EVENT_CLONE || event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK) {
      unsigned long made = 0;
      ::ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &made);
      adopt(one, static_cast<pid_t>(made));
    } else if (event == PTRACE_EVENT_EXEC && one.counted) {
      ::ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
      tracees_.erase(pid);
      return;
    } else if (event == PTRACE_EVENT_EXIT && pid == main_ && !killed_) {
      const int user = effective_user(pid);
      if (user > 0) tell_("stays " + std::to_string(user));
    }
    resume(pid);
  }

  void adopt(tracee& maker, pid_t made) {
    const bool is_thread = process_of(made) != made;
    tracee& one = tracees_[made];
    one.who = is_thread ? (maker.of_main ? "t" + std::to_string(++threads_) : maker.who + ".t")
                        : maker.who + ".c" + std::to_string(++maker.children);
    one.of_main = is_thread && maker.of_main;
    one.counted = maker.counted;
    one.euid = maker.euid;
    if (early_.erase(made) != 0) resume(made);
  }

  void handle_call(pid_t pid, tracee& one) {
    __ptrace_syscall_info info{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      begin_call(pid, one, info.entry.nr, info.entry.args);
    } else if (one.in_call) {
      end_call(pid, one, info.exit.rval);
    }
    resume(pid);
  }

  template <typename Words>
  void begin_call(pid_t pid, tracee& one, std::uint64_t number, const Words& arguments) {
    if (number == kMark) one.counted = true;
    if (!one.counted || number == kMark) return;
    one.in_call = true;
    one.name = call_name(number, arguments[1]);
    std::memcpy(one.arguments, arguments, sizeof one.arguments);
    one.number = ++one.made[one.name];
    ++made_[one.name];
    // Told later, but known now: a call may close what it is about.
    if (job_.record) one.detail = detail(pid, one);
    watch_user(pid, one);
    if (is_due(one)) inject(pid, one);
    if (one.name != "listen") return;
    listens_ = true;
    last_step_ = clock::now();
  }

  void watch_user(pid_t pid, const tracee& one) {
    if (one.name == "connect")
      tell_("connect " + std::to_string(one.euid) + " " + detail(pid, one));
    if (one.euid != 0 && changes_files(one.name, one.arguments))
      tell_("as-user " + std::to_string(one.euid) + " " + one.name + " " + detail(pid, one));
  }

  bool is_due(const tracee& one) const {
    const fault& what = job_.what;
    if (what.who.empty() || one.name != what.call || hits_ >= what.repeat) return false;
    if (hits_ > 0) return true;
    if (what.who == "*") return made_.at(one.name) == what.number;
    return one.who == what.who && one.number == what.number;
  }

  void inject(pid_t pid, tracee& one) {
    if (++hits_ == 1)
      tell_("hit " + one.who + " " + one.name + " " + std::to_string(one.number) + " " +
            detail(pid, one));
    if (job_.what.kind == "kill") {
      killed_ = one.of_main;
      ::kill(process_of(pid), SIGKILL);
    } else if (job_.what.kind == "short") {
      shorten(pid, one);
    } else {
      one.error = error_number(job_.what.kind);
      if (one.error == 0) throw std::runtime_error("no such error: " + job_.what.kind);
      one.fake_break = one.name == "brk";
      // A close that fails has closed all the same.
      if (one.name != "close") ::ptrace(PTRACE_POKEUSER, pid, offsetof(user, regs.orig_rax), -1L);
    }
  }

  // One byte only; a call that has no more to transfer stays as it is.
  void shorten(pid_t pid, tracee& one) {
    const int at = count_argument(one.name);
    if (at < 0) return;
    if (one.name == "sendmsg" || one.name == "recvmsg") {
      msghdr message{};
      if (!read_memory(pid, one.arguments[1], &message, sizeof message)) return;
      const auto parts = reinterpret_cast<std::uint64_t>(message.msg_iov);
      if (!read_memory(pid, parts, &one.first_part, sizeof one.first_part)) return;
      iovec less = one.first_part;
      less.iov_len = 1;
      write_memory(pid, parts, &less, sizeof less);
      one.parts = message.msg_iovlen;
      const std::uint64_t single = 1;
      write_memory(pid, one.arguments[1] + offsetof(msghdr, msg_iovlen), &single, sizeof single);
    } else if (one.arguments[at] > 1) {
      ::ptrace(PTRACE_POKEUSER, pid, kArgument[at], 1L);
    } else {
      return;
    }
    one.changed = at;
  }

  // The caller may count on its registers and its memory being as they were.
  void restore(pid_t pid, tracee& one) {
    if (one.parts != 0) {
      msghdr message{};
      read_memory(pid, one.arguments[1], &message, sizeof message);
      write_memory(pid, reinterpret_cast<std::uint64_t>(message.msg_iov), &one.first_part,
                   sizeof one.first_part);
      write_memory(pid, one.arguments[1] + offsetof(msghdr, msg_iovlen), &one.parts,
                   sizeof one.parts);
      one.parts = 0;
    } else {
      ::ptrace(PTRACE_POKEUSER, pid, kArgument[one.changed], one.arguments[one.changed]);
    }
    one.changed = -1;
  }

  void end_call(pid_t pid, tracee& one, std::int64_t result) {
    one.in_call = false;
    if (one.changed >= 0) restore(pid, one);
    if (one.error != 0) {
      result = one.fake_break ? break_ : -one.error;
      ::ptrace(PTRACE_POKEUSER, pid, offsetof(user, regs.rax), result);
      one.error = 0;
      one.fake_break = false;
    }
    if (one.name == "brk" && one.of_main) break_ = result;
    if (result == 0 && one.name.compare(0, 3, "set") == 0) note_user(one);
    if (job_.record)
      tell_("call " + one.who + " " + one.name + " " + std::to_string(one.number) + " " +
            std::to_string(result) + " " + one.detail);
  }

  static void note_user(tracee& one) {
    std::uint64_t user = ~0ULL;
    if (one.name == "setuid") user = one.arguments[0];
    if (one.name == "setreuid" || one.name == "setresuid") user = one.arguments[1];
    const auto effective = static_cast<uid_t>(user);
    if (effective != static_cast<uid_t>(-1)) one.euid = effective;
  }

  static std::string detail(pid_t pid, const tracee& one) {
    const int at = path_argument(one.name);
    if (at < 0)
      return is_about_descriptor(one.name)
                 ? descriptor_target(pid, static_cast<int>(one.arguments[0]))
                 : "";
    if (one.name != "connect" && one.name != "bind") {
      std::string text = read_text(pid, one.arguments[at]);
      if (one.name == "rename") text += " -> " + read_text(pid, one.arguments[1]);
      if (one.name.compare(0, 8, "renameat") == 0)
        text += " -> " + read_text(pid, one.arguments[3]);
      return text;
    }
    return read_text(pid, one.arguments[at] + offsetof(sockaddr_un, sun_path));
  }

  // Programs that the process has started detached, and those that outlived it when it was killed:
  // they go on untraced, one that stopped just before its maker was killed, and one that stops now.
  void reap_orphans() {
    for (const pid_t pid : early_) ::ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    const clock::time_point end =
        clock::now() + std::chrono::milliseconds(std::min(kOrphans_ms, job_.limit_ms));
    for (;;) {
      int status = 0;
      const pid_t pid = ::waitpid(-1, &status, __WALL | WNOHANG);
      if (pid < 0) return;
      if (pid > 0 && WIFSTOPPED(status)) ::ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
      if (pid > 0) continue;
      if (clock::now() > end) kill_orphans();
      ::usleep(200);
    }
  }

  void kill_orphans() {
    const std::string own = std::to_string(::getpid());
    std::ifstream children("/proc/" + own + "/task/" + own + "/children");
    for (pid_t pid; children >> pid;) {
      if (strays_.insert(pid).second) tell_("stray " + std::to_string(pid));
      ::kill(pid, SIGKILL);
    }
  }

  const job& job_;
  const int step_output_;
  const report& tell_;
  clock::time_point limit_;
  clock::time_point last_event_ = clock::now();
  clock::time_point last_step_ = clock::now();
  pid_t main_ = -1;
  pid_t step_ = 0;
  std::size_t next_step_ = 0;
  int threads_ = 0;
  int hits_ = 0;
  bool listens_ = false;
  bool killed_ = false;
  bool gave_up_ = false;
  std::int64_t break_ = 0;
  std::map<std::string, int> made_;  ///< calls of each name, whoever made them
  std::map<pid_t, tracee> tracees_;
  std::set<pid_t> early_;
  std::set<pid_t> strays_;
  std::string end_ = "end lost";
};

}  // namespace

void run_traced(const job& what, int output, int step_output, const report& tell) {
  run(what, output, step_output, tell).finish();
}

}  // namespace faults
