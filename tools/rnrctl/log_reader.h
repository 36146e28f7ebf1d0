#pragma once

/// The helper's logs, read back: lines of all its log files and their old generations, in order of
/// time, with escapes undone and repeats unfolded.
///
/// In a file (muro/core/errlog.h, muro/core/log_fold.h) a line is its UTC time, a blank, the
/// component and ": ", the message. Bytes below 0x20 and "`" are written as "`" and two hexadecimal
/// digits; of equal lines in a row the second and all after it stand as one marker with the time of
/// the latest and their number.
///
/// Nothing here throws but `std::bad_alloc`; a file that is gone or cannot be read has no lines.

#include <string>
#include <string_view>
#include <vector>

namespace rnrctl {

struct log_entry {
  std::string time;       ///< "2026-01-02T03:04:05Z"; empty where the helper could not read a clock
  std::string component;  ///< empty where a line has none
  std::string message;    ///< escapes undone: any bytes
  std::string file;
  unsigned long long repeats = 0;  ///< how many more times the line came
  std::string last_time;           ///< the latest of them; empty without
};

/// The bytes that the log wrote as `text`. What is no escape stays as it is.
std::string without_escapes(std::string_view text);

/// `bytes` on one line that does a terminal no harm: control bytes as "\n", "\t", "\x1b" and a
/// backslash as it is.
std::string printable(const std::string& bytes);

/// Appends what one line of `file` (without its end) tells: a new entry, or repeats of the last.
void add_line(std::vector<log_entry>& entries, std::string_view line, const std::string& file);

/// The lines of `path` behind those of its older generations, `path`.0 being the latest of them.
std::vector<log_entry> read_log(const std::string& path);

/// Every log file of the helper on this Mac: beside the shared helper and beside each session's.
std::vector<std::string> log_files();

/// One list in order of time; the lines of one file keep their order.
std::vector<log_entry> merged(std::vector<std::vector<log_entry>> logs);

/// What a person asked to see.
struct log_filter {
  std::string id;         ///< of one session; empty: of all
  std::string component;  ///< empty: of all
  bool passes(const log_entry& entry) const;
};

}  // namespace rnrctl
