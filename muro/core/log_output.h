#pragma once

/// Output of batches of log lines: to the log file and standard error, or to a host's sink.
/// Failures are ignored all the way: a log that cannot be written must not stop the program, and
/// there is nobody to tell.

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "muro/core/log_fold.h"
#include "muro/core/log_text.h"
#include "muro/sys/xfile.h"

namespace muro {

/// A line that its producer has formatted: `prefix_length` bytes of prefix, one separator byte,
/// the message and its line end. The buffer is the producer's until `release` (if any) is called
/// with it.
struct raw_log_line {
  const char* data;
  std::size_t length;
  std::size_t prefix_length;
  void (*release)(const char* data);

  std::string_view bytes() const { return {data, length}; }
  std::string_view message() const { return log_text::raw_message(bytes(), prefix_length); }
};

/// One line: a text without timestamp and line end, or a raw line.
using log_entry = std::variant<std::string, raw_log_line>;

/// Writes batches. One thread at a time; keeps what later batches are folded into.
class log_output {
 public:
  /// Escapes the texts and writes all entries as the settings say. The file is opened and closed
  /// once, while the effective user is held.
  void write(std::vector<log_entry>& batch);

 private:
  void write_to_file(const std::vector<log_entry>& batch);

  log_folder folder_;
  std::string folded_file_;  // the file that folder_'s line went to
  log_text::clock clock_;
};

/// Escapes the texts among the entries, so that each is one line.
void escape(std::vector<log_entry>& batch);

/// Writes the entries to standard error. Texts get a timestamp from `clock`, if there is one, and a
/// line end; raw lines are written whole, or without `clock` from their message on.
void write_to_stderr(const std::vector<log_entry>& batch, log_text::clock* clock);

/// Gives raw lines back to their producers and empties `batch`.
void release(std::vector<log_entry>& batch);

/// The log file, open for one batch. Lines are gathered in memory and written in few large pieces;
/// every piece is placed by seeking relative to the end of the file, so that what another process
/// appends meanwhile stays. Deliberate: not opened for appending, because a marker could then not
/// overwrite its predecessor.
class log_file {
 public:
  /// Opens `path`, creating it when it is missing.
  log_file(const std::string& path, log_folder& folder);
  /// Writes what is gathered, cuts or rotates as the settings say, and closes.
  ~log_file();
  log_file(const log_file&) = delete;
  log_file& operator=(const log_file&) = delete;

  bool is_open() const { return static_cast<bool>(file_); }

  /// Writes a line (line end included) or, when it repeats the one before it, its marker.
  void write(std::string_view line, std::size_t prefix_length);

 private:
  void write_gathered();
  void keep_small();

  xfile file_;
  log_folder& folder_;
  std::string gathered_;
  std::size_t step_back_ = 0;  // the gathered bytes go so many before the end
};

}  // namespace muro
