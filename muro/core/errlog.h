#pragma once

/// The process-wide error log: named log scopes put lines on a queue, one background thread (the
/// dumper) writes them to the log file and to standard error.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "muro/core/fmt.h"

namespace muro {

class xfile;

// Process-wide settings, listed once. Each may be written at any time and takes effect with the
// next line or batch; the file name has setters only.
extern std::atomic<std::int32_t> log_level;           // 0: lines above this level are dropped
extern std::atomic<std::int32_t> g_run_report_level;  // 0: 1 adds "[pid] ", 2 "[pid:thread] "
extern std::atomic<int (*)(const char*, std::size_t)> log_filter;       // 0 drops the line
extern std::atomic<void (*)(const char*, std::size_t)> log_line_hook;   // sees accepted lines
extern std::atomic<void (*)(const char*, std::size_t)> log_direct_sink; // replaces file and stderr
extern std::atomic<unsigned long long> log_rotate_size;                 // bytes; 0: no rotation
extern std::atomic<std::int32_t> log_rotate_count;                      // old files; 0: no rotation
extern std::atomic<unsigned long long> log_cut_size;                    // bytes; 0: no cutting
extern std::atomic<bool> log_to_stderr;                                 // true
extern std::atomic<bool> log_stderr_timestamps;                         // true

/// A named log scope. Cheap: it keeps the pointer it is given, which must outlive it.
class errlog {
 public:
  explicit errlog(const char* name, bool flag = false) : name_(name), flag_(flag) {}

  void log(int level, const char* text, std::size_t length) const;

  /// Queues a line that the caller has formatted; `release` is called with `data` when it is out.
  static void log_line_direct(const char* data, std::size_t length, std::size_t prefix_length,
                              void (*release)(const char*));

  static void set_log_file(const std::string& name);
  static void set_log_rotate(unsigned long long size, int count);
  static void set_log_filter(int (*filter)(const char*, std::size_t));
  static void set_log_level(int level);
  static void set_log_cut(unsigned long long size);
  static void set_log_line_hook(void (*hook)(const char*, std::size_t));
  static void set_log_direct_sink(void (*sink)(const char*, std::size_t));
  static void set_log_to_stderr(bool on);
  static void set_log_stderr_timestamps(bool on);

  static void wait_for_flush();
  static std::string current_timestamp();
  static void check_log_cut(xfile* file);
  static void check_log_rotate(xfile* file);

  /// Waits in its destructor until every line queued so far is out.
  class wait_for_flush_task {
   public:
    wait_for_flush_task() = default;
    ~wait_for_flush_task();
    wait_for_flush_task(const wait_for_flush_task&) = delete;
    wait_for_flush_task& operator=(const wait_for_flush_task&) = delete;
  };

 private:
  const char* name_;
  [[maybe_unused]] bool flag_;
};

/// A log scope that fills templates.
class fmt_dbg : public errlog {
 public:
  using errlog::errlog;

  template <class... Args>
  void fmt_verbose(const std::string& tmpl, const Args&... args) const {
    fmt message(tmpl);
    (message._add_arg(args, 0, 0), ...);
    const std::string text = message.str();
    log(0, text.data(), text.size());
  }
};

void init_errlog();

}  // namespace muro
