#pragma once

/// Child processes.

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "muro/sys/thread.h"  // silent_terminate

namespace muro {

int get_max_fds();

class process {
 public:
  /// Receives a child's output on whatever thread its registrar runs it.
  class output_handler {
   public:
    virtual ~output_handler() = default;
    virtual void data(const char* bytes, std::size_t length) = 0;
    virtual void started(pid_t pid) = 0;
  };

  /// What a registrar is handed: it owns the handler and the descriptor until cleaned up.
  struct output_record {
    pid_t pid;
    int descriptor;
    std::unique_ptr<output_handler> handler;
  };

  using run_function = void (*)(output_record*);
  using cleanup_function = void (*)(output_record*);
  using output_registrar = void (*)(void* context, run_function, cleanup_function, output_record*);

  struct options {
    bool chdir_to_program_folder = false;
    const std::string* working_folder = nullptr;
    const std::set<int>* descriptors_to_keep = nullptr;
    output_registrar stdout_registrar = nullptr;
    void* stdout_registrar_context = nullptr;
    std::unique_ptr<output_handler> stdout_handler;
    output_registrar stderr_registrar = nullptr;
    void* stderr_registrar_context = nullptr;
    std::unique_ptr<output_handler> stderr_handler;
  };

  process() = default;
  process(const std::string& program, const std::vector<std::string>& args);
  ~process();
  process(const process&) = delete;
  process& operator=(const process&) = delete;

  void init_(const std::string& program, const std::vector<std::string>& args, options& opts);
  bool read(void (*callback)(void* context, const char* bytes, std::size_t length), void* context,
            long timeout_s);
  static void string_reader(void* context, const char* bytes, std::size_t length);
  bool done();
  void kill(long long exit_code);

  pid_t pid() const { return pid_; }
  int stdin_write_end() const { return stdin_write_; }
  int stdout_read_end() const { return stdout_read_; }
  long long exit_code() const { return exit_code_; }

  static int system(const std::string& program, const std::vector<std::string>& args,
                    long long timeout_s);
  static std::string system_immediate(const std::string& program,
                                      const std::vector<std::string>& args, long long* exit_code,
                                      long timeout_s);

 private:
  pid_t pid_ = -1;
  int stdin_write_ = -1;
  int stdout_read_ = -1;
  char buffer_[8192];
  long long exit_code_ = -1;
};

}  // namespace muro
