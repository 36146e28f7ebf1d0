#include "muro/sys/process.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/child_start.h"
#include "muro/sys/event_wait.h"
#include "muro/sys/pipe.h"
#include "muro/sys/time.h"
#include "platform/clock.h"
#include "platform/platform.h"

namespace muro {
namespace {

using process_priv::calls;
using process_priv::child_plan;

constexpr std::size_t kChunk = 8192;
constexpr long long kKilledExitCode = -9;
constexpr unsigned long long kPollPause_us = 100000;

// The status of a stopped child has this value in its low seven bits.
constexpr int kStopped = 0x7f;

bool has_ended(int status) {
  return (status & kStopped) != kStopped;
}

/// The exit status, or minus the signal that killed the child.
int exit_code_of(int status) {
  const int signal = status & 0x7f;
  return signal == 0 ? (status >> 8) & 0xff : -signal;
}

/// Waits for the end of a child that has been told to end, signals or not; the wait has no limit.
void reap(pid_t pid) {
  int status;
  while (calls.waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
}

/// Ends and reaps the child, unless it is no longer ours to signal: reaped already here or by
/// somebody else, its number may belong to a stranger.
void kill_and_reap(pid_t pid) {
  int status;
  const pid_t answer = calls.waitpid(pid, &status, WNOHANG);
  if (answer == -1 || (answer > 0 && has_ended(status))) return;
  calls.kill(pid, SIGKILL);
  reap(pid);
}

/// Ends and reaps a child when its scope is left early.
class child_guard {
 public:
  explicit child_guard(pid_t pid) : pid_(pid) {}
  ~child_guard() {
    const errno_guard keep;
    if (pid_ != -1) kill_and_reap(pid_);
  }
  child_guard(const child_guard&) = delete;
  child_guard& operator=(const child_guard&) = delete;
  void dismiss() { pid_ = -1; }

 private:
  pid_t pid_;
};

/// Reads again when a signal came first: a child's end sends one.
ssize_t read_chunk(int descriptor, char* buffer) {
  ssize_t got;
  do {
    got = ::read(descriptor, buffer, kChunk);
  } while (got == -1 && errno == EINTR);
  return got;
}

bool lacks_registrar(const process::options& opts) {
  return (opts.stdout_handler && opts.stdout_registrar == nullptr) ||
         (opts.stderr_handler && opts.stderr_registrar == nullptr);
}

void choose_folder(child_plan& plan, const std::string& program, const process::options& opts) {
  if (opts.working_folder != nullptr) {
    plan.run_in_folder(program, *opts.working_folder);
  } else if (opts.chdir_to_program_folder) {
    plan.run_in_program_folder(program);
  }
}

/// Seconds of the clock that waits are measured by.
long long wait_clock_s() {
  return wait_clock_us() / 1000000;
}

long long deadline_after(long long timeout_s) {
  constexpr long long kNever = std::numeric_limits<long long>::max();
  const long long now_s = wait_clock_s();
  return timeout_s > kNever - now_s ? kNever : now_s + timeout_s;
}

/// Whether the child has ended; then its exit code. Throws "system" when it cannot be asked for.
bool poll_exit_code(pid_t pid, int& exit_code) {
  int status = 0;
  const pid_t answer = calls.waitpid(pid, &status, WNOHANG);
  if (answer == -1) throw exception::function("system");
  if (answer == 0 || !has_ended(status)) return false;
  exit_code = exit_code_of(status);
  return true;
}

int wait_until(pid_t pid, long long deadline_s) {
  child_guard guard(pid);  // kills and reaps on every way out but the child's own end
  int exit_code = 0;
  for (;;) {
    if (wait_clock_s() > deadline_s) throw exception::function("system");
    if (poll_exit_code(pid, exit_code)) break;
    pause_us(kPollPause_us);
  }
  guard.dismiss();
  return exit_code;
}

/// Where the system cannot tell of a child's end, its state is looked at again and again. Not through
/// `pause_us`, nor by a host's clock: this waits for something to happen and nearly always ends
/// before its first step is over. Signals only make the steps shorter.
void look_for_end(pid_t pid, int limit_ms) {
  constexpr int kStep_ms = 2;
  const long long end_us = platform::monotonic_us() + limit_ms * 1000LL;
  do {
    siginfo_t ended{};
    if (::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0) return;
    if (ended.si_pid == pid) return;
    ::poll(nullptr, 0, kStep_ms);
  } while (platform::monotonic_us() < end_us);
}

/// Gives a child that is about to end up to 100 ms, without reaping it.
void await_end(pid_t pid) {
  constexpr int kGrace_ms = 100;
  if (!platform::await_process_end(pid, kGrace_ms)) look_for_end(pid, kGrace_ms);
}

}  // namespace

int get_max_fds() {
  return ::getdtablesize();
}

// The object is whole once the first constructor is done, so a failing start runs the destructor.
process::process(const std::string& program, const std::vector<std::string>& args) : process() {
  options defaults;
  init_(program, args, defaults);
}

process::~process() {
  const errno_guard keep;
  stdin_write_.reset();
  stdout_read_.reset();
  kill(kKilledExitCode);
}

void process::init_(const std::string& program, const std::vector<std::string>& args,
                    options& opts) {
  if (lacks_registrar(opts) || pid_ != -1) throw exception::function("init_");
  exit_code_ = -1;
  child_plan plan(program, args);
  if (opts.descriptors_to_keep != nullptr) plan.keep(*opts.descriptors_to_keep);
  choose_folder(plan, program, opts);

  pipe_ends input;
  pipe_ends output;
  pipe_ends error;
  if (!open_pipe(input) || !open_pipe(output) || (opts.stderr_handler && !open_pipe(error)))
    throw exception::system_error("init_", "pipe");
  plan.place(input.read.get(), output.write.get(), error.write.get());
  const pid_t pid = plan.start();
  if (pid == -1) throw exception::system_error("init_", "fork");

  pid_ = pid;
  stdin_write_ = std::move(input.write);
  stdout_read_ = std::move(output.read);
  // The child's ends go before a registrar runs: it may read to the end there and then.
  input.read.reset();
  output.write.reset();
  error.write.reset();
  hand_over_output(opts, std::move(error.read));
}

void process::hand_over_output(options& opts, unique_fd error_read) {
  if (opts.stdout_handler)
    hand_over(opts.stdout_registrar, opts.stdout_registrar_context, std::move(opts.stdout_handler),
              std::move(stdout_read_));
  if (opts.stderr_handler)
    hand_over(opts.stderr_registrar, opts.stderr_registrar_context, std::move(opts.stderr_handler),
              std::move(error_read));
}

void process::hand_over(output_registrar registrar, void* context,
                        std::unique_ptr<output_handler> handler, unique_fd read_end) const {
  auto* const record = new output_record{pid_, read_end.get(), std::move(handler)};
  static_cast<void>(read_end.release());
  try {
    registrar(context, run_output, clean_up_output, record);
  } catch (...) {
    clean_up_output(record);
    throw;
  }
}

void process::run_output(output_record* record) {
  try {
    record->handler->started(record->pid);
  } catch (...) {
  }
  char chunk[kChunk];
  for (ssize_t got; (got = read_chunk(record->descriptor, chunk)) > 0;) {
    try {
      record->handler->data(chunk, static_cast<std::size_t>(got));
    } catch (...) {
    }
  }
}

void process::clean_up_output(output_record* record) {
  unique_fd(record->descriptor).reset();
  delete record;
}

bool process::read(void (*callback)(void*, const char*, std::size_t), void* context,
                   long timeout_s) {
  if (!stdout_read_.is_open()) throw exception::function("read");
  if (timeout_s > 0) {
    bool readable = false;
    bool error = false;
    wait_for_event(stdout_read_.get(), &readable, nullptr, &error, timeout_s);
    if (!readable && !error) {
      kill(kKilledExitCode);
      throw exception::function("read");
    }
  }
  const ssize_t got = read_chunk(stdout_read_.get(), buffer_);
  if (got < 0) throw exception::function("read");
  if (got == 0) return false;
  if (callback != nullptr) callback(context, buffer_, static_cast<std::size_t>(got));
  return true;
}

void process::string_reader(void* context, const char* bytes, std::size_t length) {
  static_cast<std::string*>(context)->append(bytes, length);
}

bool process::done() {
  if (pid_ == -1) return true;
  int status = 0;
  const pid_t answer = calls.waitpid(pid_, &status, WNOHANG);
  if (answer == -1) {
    // Not ours any more: the number may belong to a stranger by now.
    if (errno == ECHILD) pid_ = -1;
    throw exception::function("done");
  }
  if (answer == 0 || !has_ended(status)) return false;
  pid_ = -1;
  exit_code_ = exit_code_of(status);
  return true;
}

void process::kill(long long exit_code) {
  if (pid_ == -1) return;
  kill_and_reap(std::exchange(pid_, -1));
  exit_code_ = exit_code;
}

int process::system(const std::string& program, const std::vector<std::string>& args,
                    long long timeout_s) {
  const bool limited = timeout_s != -1;
  const long long deadline_s = limited ? deadline_after(timeout_s) : 0;
  child_plan plan(program, args);
  if (!limited) plan.detach();
  const pid_t pid = plan.start();
  if (pid == -1) throw exception::function("system");
  if (limited) return wait_until(pid, deadline_s);
  reap(pid);
  return 0;
}

std::string process::system_immediate(const std::string& program,
                                      const std::vector<std::string>& args, long long* exit_code,
                                      long timeout_s) {
  std::string collected;
  process child(program, args);
  while (child.read(string_reader, &collected, timeout_s)) {
  }
  if (exit_code == nullptr) return collected;
  await_end(child.pid());
  *exit_code = child.done() ? child.exit_code() : -1;
  return collected;
}

}  // namespace muro
