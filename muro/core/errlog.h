#pragma once

/// The process-wide error log.
///
/// A component holds a log object with its name and puts lines through it. An accepted line goes on
/// a queue; one background thread, the dumper, writes it to the log file and to standard error:
///
///     2024-02-29T12:00:00Z main: Failed to create directory: /x
///     timestamp in UTC     name  text, with every byte below 0x20 and "`" as "`" and two hex
///     digits
///
/// A caller never waits for output: a line costs one copy, one lock and at most one post. A line
/// may be logged from any thread and at any time, before the runtime has started and while the
/// process ends; it is out for certain only after `wait_for_flush`. Nothing here reports a failure
/// but `std::bad_alloc`, and errno stays as it was. Settings: muro/core/log_settings.h.

#include <cstddef>
#include <string>
#include <string_view>

#include "muro/core/fmt.h"
#include "muro/core/log_settings.h"

namespace muro {

class xfile;

/// A named log scope. Cheap: it keeps the name where it is, which must outlive it unchanged. A null
/// or empty name logs bare texts.
class errlog {
 public:
  /// `flag` is kept and read by nothing.
  explicit errlog(const char* name, bool flag = false)
      : name_(name != nullptr ? name : ""), flag_(flag) {}

  /// Logs "NAME: TEXT" unless `level` is above `log_level` or `log_filter` drops it.
  void log(int level, const char* text, std::size_t length) const;

  /// Queues a line that the caller has formatted: `prefix_length` bytes of prefix (a timestamp),
  /// one separator byte, the message, its line end. It is written as it is, past level, filter and
  /// hook. The buffer must stay until `release` (null: none) is called with `data`, on the dumper's
  /// thread, once the line is out. A host's `x_errlog_log_line_direct` takes the call over.
  static void log_line_direct(const char* data, std::size_t length, std::size_t prefix_length,
                              void (*release)(const char*));

  /// The log file from the next batch on: `expand_filename(name)`, but a link under the file's own
  /// name is not followed, so that it is refused (muro/core/log_open.h). If expanding throws, the
  /// old one stays.
  static void set_log_file(const std::string& name);
  static void set_log_rotate(unsigned long long size, int count);
  static void set_log_filter(int (*filter)(const char*, std::size_t));
  static void set_log_level(int level);
  static void set_log_cut(unsigned long long size);
  static void set_log_line_hook(void (*hook)(const char*, std::size_t));
  static void set_log_direct_sink(void (*sink)(const char*, std::size_t));
  static void set_log_to_stderr(bool on);
  static void set_log_stderr_timestamps(bool on);

  /// Blocks until all lines queued before the call are out; through `x_errlog_wait_for_flush` when
  /// a host has set that. Not limited in time: a disk or terminal that hangs holds it up. Must not
  /// be called while the effective user is switched (muro/sys/user_switch.h).
  static void wait_for_flush();

  /// The UTC time now as "2024-02-29T12:00:00Z"; "N" when it cannot be read.
  static std::string current_timestamp();

  /// What the dumper does after each batch, with the file at its end; for sizes of 0 too. See
  /// `cut_log` and `rotate_log` in muro/core/log_shrink.h.
  static void check_log_cut(xfile* file);
  static void check_log_rotate(xfile* file);

  /// Calls `wait_for_flush` in its destructor and swallows what it throws.
  class wait_for_flush_task {
   public:
    wait_for_flush_task() = default;
    ~wait_for_flush_task();
    wait_for_flush_task(const wait_for_flush_task&) = delete;
    wait_for_flush_task& operator=(const wait_for_flush_task&) = delete;
  };

 private:
  std::string_view name_;
  [[maybe_unused]] bool flag_;
};

/// A log scope that fills templates.
class fmt_dbg : public errlog {
 public:
  using errlog::errlog;

  /// Logs the template with its placeholders filled, at level 0.
  template <class... Args>
  void fmt_verbose(std::string_view tmpl, const Args&... args) const {
    const std::string text = fill_template(tmpl, args...);
    log(0, text.data(), text.size());
  }
};

/// A step of the runtime's start. Deliberate: it has nothing to do, the log works before it.
void init_errlog();

}  // namespace muro
