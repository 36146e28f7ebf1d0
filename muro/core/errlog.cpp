#include "muro/core/errlog.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "muro/core/errno_guard.h"
#include "muro/core/hooks.h"
#include "muro/core/log_dumper.h"
#include "muro/core/log_shrink.h"
#include "muro/core/log_text.h"
#include "muro/sys/files.h"
#include "muro/sys/xfile.h"
#include "platform/platform.h"

namespace muro {

namespace {

/// What `g_run_report_level` asks for in front of a line, with `room` for its bytes.
std::string_view report_prefix(char (&room)[64]) {
  const int report_level = g_run_report_level;
  if (report_level != 1 && report_level != 2) return "";
  const auto process = static_cast<unsigned long long>(::getpid());
  const auto thread = static_cast<unsigned long long>(platform::thread_number());
  if (report_level == 1) {
    std::snprintf(room, sizeof room, "[%llu] ", process);
  } else {
    std::snprintf(room, sizeof room, "[%llu:%llu] ", process, thread);
  }
  return room;
}

bool is_wanted(std::string_view line) try {
  const auto filter = log_filter.load();
  return filter == nullptr || filter(line.data(), line.size()) != 0;
} catch (...) {
  return true;
}

void tell(void (*hook)(const char*, std::size_t), const std::string& line) try {
  hook(line.data(), line.size());
} catch (...) {
  // The line is queued; what its observer makes of it is the observer's affair.
}

/// A line that the filter and the hook are to see as one text.
void push_observed(const text_parts& parts) {
  const text_parts without_prefix{"", parts.name, parts.message};
  std::string line(without_prefix.size(), '\0');
  without_prefix.copy_to(line.data());
  if (!is_wanted(line)) return;
  log_dumper::push(text_parts{parts.prefix, "", line});
  if (const auto hook = log_line_hook.load()) tell(hook, line);
}

}  // namespace

void errlog::log(int level, const char* text, std::size_t length) const {
  if (level > log_level) return;
  const errno_guard keep;
  char prefix[64];
  const text_parts parts{report_prefix(prefix), name_, {text, length}};
  const bool observed = log_filter.load() != nullptr || log_line_hook.load() != nullptr;
  observed ? push_observed(parts) : log_dumper::push(parts);
}

void errlog::log_line_direct(const char* data, std::size_t length, std::size_t prefix_length,
                             void (*release)(const char*)) {
  const errno_guard keep;
  if (x_errlog_log_line_direct != nullptr) {
    x_errlog_log_line_direct(data, length, prefix_length, release);
  } else {
    log_dumper::push(raw_log_line{data, length, prefix_length, release});
  }
}

namespace {

/// `expand_filename` for all but the last component: a link under the log's own name must not be
/// followed, now no more than when it is opened.
std::string expand_log_name(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  const std::string last = slash == std::string::npos ? name : name.substr(slash + 1);
  if (last.empty() || last == "." || last == "..") return expand_filename(name);
  std::string folder = ".";
  if (slash != std::string::npos) folder = name.substr(0, slash + (slash == 0 ? 1 : 0));
  folder = expand_filename(folder);
  return folder + (folder.ends_with('/') ? "" : "/") + last;
}

}  // namespace

void errlog::set_log_file(const std::string& name) {
  const errno_guard keep;
  try {
    set_log_file_name(expand_log_name(name));
  } catch (...) {
    // Deliberate: a name that leads nowhere leaves the old one.
  }
}

void errlog::set_log_rotate(unsigned long long size, int count) {
  log_rotate_size = size;
  log_rotate_count = count;
}

void errlog::set_log_filter(int (*filter)(const char*, std::size_t)) {
  log_filter = filter;
}
void errlog::set_log_level(int level) {
  log_level = level;
}
void errlog::set_log_cut(unsigned long long size) {
  log_cut_size = size;
}
void errlog::set_log_line_hook(void (*hook)(const char*, std::size_t)) {
  log_line_hook = hook;
}
void errlog::set_log_direct_sink(void (*sink)(const char*, std::size_t)) {
  log_direct_sink = sink;
}
void errlog::set_log_to_stderr(bool on) {
  log_to_stderr = on;
}
void errlog::set_log_stderr_timestamps(bool on) {
  log_stderr_timestamps = on;
}

void errlog::wait_for_flush() {
  const errno_guard keep;
  if (x_errlog_wait_for_flush != nullptr) {
    x_errlog_wait_for_flush();
  } else {
    log_dumper::wait_for_flush();
  }
}

std::string errlog::current_timestamp() {
  const errno_guard keep;
  return log_text::clock().now();
}

void errlog::check_log_cut(xfile* file) {
  cut_log(*file, log_cut_size);
}

void errlog::check_log_rotate(xfile* file) {
  rotate_log(*file, log_rotate_size, log_rotate_count);
}

errlog::wait_for_flush_task::~wait_for_flush_task() {
  try {
    wait_for_flush();
  } catch (...) {
    // A destructor has nobody to tell.
  }
}

void init_errlog() {}

}  // namespace muro
