#pragma once

/// Child processes: another program, started by fork and execve, its standard input and output held
/// through pipes.
///
///     parent                                   child
///     stdin_write_end()  ------ pipe ------->  0
///     stdout_read_end()  <----- pipe --------  1
///     (a stderr handler) <----- pipe --------  2, the parent's without a handler
///
/// Two static functions serve most callers: `system` waits for the exit code or detaches the
/// program for good, `system_immediate` collects what the program prints.
///
/// A child has no descriptor but 0, 1, 2 and those that were asked to be kept, every signal as the
/// system gives it and none held back, and this process's environment but for PATH, which is
/// launchd's default: /usr/bin:/bin:/usr/sbin:/sbin. Arguments are passed as they are, no shell
/// sees them. A program without a slash is searched for as execvp(3) does, in this process's own
/// PATH, which the helper has set to the same at its start. A child that cannot be set up, or whose
/// program, argument or folder holds a zero byte, kills itself, so its exit code is -9; no exception
/// tells of it.
///
/// Exit codes: 0 to 255 is the exit status, a negative number is minus the signal that ended the
/// child, -1 is "not known (yet)", and `kill` stores what it is given.
///
/// Failures throw `muro::exception`: ":Error in 'NAME'" with the NAME given at each function, or
/// ":Error from 'CALL' (called in 'init_'): ...". An object belongs to one thread at a time.
/// Starting a program waits while another thread borrows a user's rights (muro/sys/user_switch.h),
/// so that no program gets those.

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "muro/sys/thread.h"  // silent_terminate
#include "muro/sys/unique_fd.h"

namespace muro {

/// The size of the descriptor table: every open descriptor's number is below it (getdtablesize(2)),
/// unless the limit was lowered after it was opened.
int get_max_fds();

class process {
 public:
  /// Receives a child's output on whatever thread its registrar runs it. What its functions throw
  /// is dropped: `data` then misses that chunk, and the next one comes all the same, so that the
  /// child never stands still behind a full pipe.
  class output_handler {
   public:
    virtual ~output_handler() = default;
    virtual void data(const char* bytes, std::size_t length) = 0;
    virtual void started(pid_t pid) = 0;
  };

  /// What a registrar is handed. It owns the handler and the read end of the pipe until the
  /// clean-up function has freed it.
  struct output_record {
    pid_t pid;
    int descriptor;
    std::unique_ptr<output_handler> handler;
  };

  /// Run: tells the handler `started`, then hands it what the child writes, in chunks of at most
  /// 8192 bytes, until the end of the output or a failing read. Clean-up: closes the descriptor,
  /// destroys the handler, frees the record. Neither throws.
  using run_function = void (*)(output_record*);
  using cleanup_function = void (*)(output_record*);

  /// Called once by `init_` on the caller's thread, with the child running already. It takes the
  /// record, has the run function called (on a thread or loop of its own, or there and then) and
  /// after it the clean-up function. A registrar that throws has not taken the record: `init_`
  /// cleans it up and passes the exception on.
  using output_registrar = void (*)(void* context, run_function, cleanup_function, output_record*);

  struct options {
    /// Without a `working_folder`: change to the program's folder and run "./" and its base name.
    bool chdir_to_program_folder = false;
    /// Change to this folder and run the absolute path that `expand_filename(program)` gives in the
    /// parent's working folder. Not owned; null for none.
    const std::string* working_folder = nullptr;
    /// Descriptors that stay open in the child, under their numbers, even if they are marked
    /// close-on-exec here. Not owned; null for none. 0 and 1 are the pipes whatever it holds.
    const std::set<int>* descriptors_to_keep = nullptr;
    /// With a handler the output goes to it and `read` has nothing to read; `init_` takes the
    /// handler away as it hands it over.
    output_registrar stdout_registrar = nullptr;
    void* stdout_registrar_context = nullptr;
    std::unique_ptr<output_handler> stdout_handler;
    /// Without this handler the child keeps the parent's standard error.
    output_registrar stderr_registrar = nullptr;
    void* stderr_registrar_context = nullptr;
    std::unique_ptr<output_handler> stderr_handler;
  };

  /// No child yet; `init_` starts one.
  process() = default;
  /// Starts `program` with default options. Throws what `init_` throws.
  process(const std::string& program, const std::vector<std::string>& args);
  /// Closes both pipe ends, then kills a child that still runs, as `kill(-9)` does. Keeps errno.
  ~process();
  process(const process&) = delete;
  process& operator=(const process&) = delete;

  /// Starts `program` with `args` (the program itself is argument 0). Throws "init_" for a handler
  /// without its registrar, or while this object's child is not reaped; ("init_", "pipe") and
  /// ("init_", "fork") when the system refuses, every descriptor closed again. What a registrar
  /// throws passes on; the child then runs and belongs to this object.
  void init_(const std::string& program, const std::vector<std::string>& args, options& opts);

  /// Reads once, at most 8192 bytes, from the child's standard output and passes them to `callback`
  /// (null drops them). False at the end of the output, else true. `timeout_s` of 0 or less waits
  /// without limit, on purpose: the caller trusts the child to write or end. When a longer wait
  /// brings nothing, the child is killed (exit code -9) and "read" is thrown; "read" too when there
  /// is nothing to read from or the read fails. A read that a signal interrupts is repeated.
  bool read(void (*callback)(void* context, const char* bytes, std::size_t length), void* context,
            long timeout_s);

  /// A callback for `read`: appends to the `std::string` that `context` points to.
  static void string_reader(void* context, const char* bytes, std::size_t length);

  /// Whether the child has ended (true also when there is none); reaps it and stores its exit code.
  /// Does not wait. A stopped child has not ended. Throws "done" when the child cannot be asked
  /// for; if somebody else has reaped it (ECHILD), it is forgotten first and its number never
  /// signalled again.
  bool done();

  /// Ends the child with SIGKILL if it still runs, waits for its end and stores `exit_code`. Does
  /// nothing when there is no child. Never signals a number that is no longer the child's. The wait
  /// has no limit: after SIGKILL only the kernel delays the end. Never throws.
  void kill(long long exit_code);

  /// -1 once the child is reaped, or was never started.
  pid_t pid() const { return pid_; }
  /// The pipe into the child's standard input; still owned here, -1 when closed.
  int stdin_write_end() const { return stdin_write_.get(); }
  /// The pipe from its standard output; still owned here, -1 when closed or handed to a handler.
  int stdout_read_end() const { return stdout_read_.get(); }
  long long exit_code() const { return exit_code_; }

  /// Runs `program` with this process's standard input, output and error. With a limit of
  /// `timeout_s` seconds: looks every 100 ms (`pause_us`) whether it has ended and gives its exit
  /// code; when the limit is past, kills and reaps it and throws "system". The clock has whole
  /// seconds, and "past" is greater than, so the limit may be exceeded by up to a second. Throws
  /// "system" too when fork or waiting fails.
  ///
  /// Deliberate: -1 means no limit and no waiting at all. The program runs detached in a POSIX
  /// session of its own, as no child of this process, and 0 is returned whatever becomes of it.
  static int system(const std::string& program, const std::vector<std::string>& args,
                    long long timeout_s);

  /// Runs `program` with an empty standard input that stays open, and gives all it writes to its
  /// standard output. Each single read may take `timeout_s` seconds (0 or less: any time), the
  /// whole as long as it likes; a read that takes longer kills the child and throws "read". With a
  /// non-null `exit_code`, a child that has closed its output is given up to 100 ms to end before
  /// its exit code is stored, -1 if it has not. A child that still runs then is killed. Throws what
  /// `init_`, `read` and `done` throw.
  static std::string system_immediate(const std::string& program,
                                      const std::vector<std::string>& args, long long* exit_code,
                                      long timeout_s);

 private:
  static void run_output(output_record* record);
  static void clean_up_output(output_record* record);
  void hand_over_output(options& opts, unique_fd error_read);
  void hand_over(output_registrar registrar, void* context, std::unique_ptr<output_handler> handler,
                 unique_fd read_end) const;

  pid_t pid_ = -1;
  unique_fd stdin_write_;
  unique_fd stdout_read_;
  char buffer_[8192];
  long long exit_code_ = -1;
};

}  // namespace muro
