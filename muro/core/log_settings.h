#pragma once

/// The error log's process-wide settings, listed once.
///
/// All are constant-initialised and never destroyed, so a line may be logged before the runtime
/// has started and while the process ends. Any thread may read and write them at any time: what a
/// caller's line meets (level, filter, report level, hook) takes effect with the next line, what
/// the dumper reads (the rest) with its next batch. Setters are members of `muro::errlog`.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace muro {

/// Lines above this level are dropped. Default 0.
extern std::atomic<std::int32_t> log_level;

/// 1 puts "[PID] " in front of every line, 2 "[PID:THREAD] " (the kernel's number of the logging
/// thread); any other value nothing. Default 0.
extern std::atomic<std::int32_t> g_run_report_level;

/// Asked for every line (name and text, no prefix) before it is queued, on the caller's thread; 0
/// drops the line. Must not log. What it throws counts as "keep". Default none.
extern std::atomic<int (*)(const char* line, std::size_t length)> log_filter;

/// Told of every accepted line (name and text, no prefix) right after it is queued, on the
/// caller's thread. Must not log; what it throws is swallowed. Default none.
extern std::atomic<void (*)(const char* line, std::size_t length)> log_line_hook;

/// Gets every line (escaped, with its prefix, without timestamp and line end) on the dumper's
/// thread, instead of the file and standard error. What it throws is swallowed. Default none.
extern std::atomic<void (*)(const char* line, std::size_t length)> log_direct_sink;

/// Bytes from which on the file is rotated after a batch; 0: never. Deliberate: compared as a
/// signed number, so a value from 2^63 on is below every size and rotates after each batch.
extern std::atomic<unsigned long long> log_rotate_size;

/// Old files kept, NAME.0 being the newest; 0: no rotation. A negative count keeps none: the log
/// is deleted where it would be rotated.
extern std::atomic<std::int32_t> log_rotate_count;

/// Bytes above which the file is cut to its newest lines, about half as many bytes; 0: never. Goes
/// before rotation.
extern std::atomic<unsigned long long> log_cut_size;

/// Whether lines are echoed to standard error. Default true.
extern std::atomic<bool> log_to_stderr;

/// Whether the echo begins with the timestamp. Default true.
extern std::atomic<bool> log_stderr_timestamps;

/// The log file's path, already expanded; empty when none is set. A copy: the name may change at
/// any time.
std::string log_file_name();
void set_log_file_name(std::string name);

}  // namespace muro
