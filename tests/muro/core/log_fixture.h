#pragma once

/// A log that writes to a file of the test's own at a time of the test's choice.

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/core/log_output.h"
#include "muro/sys/thread.h"
#include "tests/muro/core/own_process.h"
#include "tests/support/temp_dir.h"

namespace test {

/// The log's clock stands still until `now_s` is changed; the log file is `dir/log`, standard error
/// is quiet. All settings are back at their defaults afterwards.
class log_test : public own_process_test {
 public:
  static constexpr long long kStart_s = 1709208000;
  static constexpr const char* kStart = "2024-02-29T12:00:00Z";
  static inline std::atomic<long long> now_s{kStart_s};  // -1: the time cannot be read

 protected:
  log_test() {
    muro::errlog::wait_for_flush();
    now_s = kStart_s;
    muro::x_absolute_time = [] {
      if (now_s < 0) throw muro::exception("no time");
      return now_s * 1000;
    };
    muro::errlog::set_log_file(path());
    muro::errlog::set_log_to_stderr(false);
  }

  ~log_test() override {
    muro::x_errlog_wait_for_flush = nullptr;
    muro::x_errlog_log_line_direct = nullptr;
    muro::errlog::wait_for_flush();
    muro::x_absolute_time = nullptr;
    muro::set_log_file_name("");
    muro::errlog::set_log_level(0);
    muro::errlog::set_log_filter(nullptr);
    muro::errlog::set_log_line_hook(nullptr);
    muro::errlog::set_log_direct_sink(nullptr);
    muro::errlog::set_log_rotate(0, 0);
    muro::errlog::set_log_cut(0);
    muro::errlog::set_log_to_stderr(true);
    muro::errlog::set_log_stderr_timestamps(true);
    muro::g_run_report_level = 0;
  }

  std::string path() const { return dir / "log"; }

  /// Logs one line in a batch of its own.
  static void log_and_flush(const std::string& text) {
    muro::errlog("main").log(0, text.data(), text.size());
    muro::errlog::wait_for_flush();
  }

  /// The log file's content once all is out.
  std::string file() const {
    muro::errlog::wait_for_flush();
    return read_file(path());
  }

  /// A line as it stands in the file.
  static std::string line(const std::string& text) {
    return std::string(kStart) + " " + text + "\n";
  }

  const temp_dir dir;
};

/// Puts a finished line into an open log file.
inline void write_line(muro::log_file& file, const std::string& line, std::size_t prefix_length) {
  file.piece() += line;
  file.end_line(prefix_length);
}

/// Holds the log's thread in the middle of an otherwise empty batch, so that all that is logged
/// until `let_go` makes exactly one batch.
class held_dumper {
 public:
  held_dumper() {
    // A line that is still queued would share the held batch.
    muro::errlog::wait_for_flush();
    auto* const sink = muro::log_direct_sink.load();
    muro::errlog::set_log_direct_sink([](const char*, std::size_t) {
      is_held().post();
      may_go().wait();
    });
    muro::errlog("").log(0, "", 0);
    is_held().wait();
    muro::errlog::set_log_direct_sink(sink);
  }
  ~held_dumper() { let_go(); }
  held_dumper(const held_dumper&) = delete;
  held_dumper& operator=(const held_dumper&) = delete;

  void let_go() {
    if (holding_) may_go().post();
    holding_ = false;
  }

 private:
  static muro::semaphore& is_held() {
    static auto* const made = new muro::semaphore(1, 0);
    return *made;
  }
  static muro::semaphore& may_go() {
    static auto* const made = new muro::semaphore(1, 0);
    return *made;
  }

  bool holding_ = true;
};

}  // namespace test
