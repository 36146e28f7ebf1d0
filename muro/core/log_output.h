#pragma once

/// Output of batches of log lines: to the log file and standard error, or to a host's sink.
/// Failures are ignored all the way: a log that cannot be written must not stop the program, and
/// there is nobody to tell. Only a file that must not be written (muro/core/log_open.h) is spoken
/// of, on standard error, where its lines go then.

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "muro/core/log_fold.h"
#include "muro/core/log_open.h"
#include "muro/core/log_queue.h"
#include "muro/core/log_text.h"
#include "muro/sys/xfile.h"

namespace muro {

/// What one batch leaves for the next.
struct log_memory {
  log_folder folder;
  std::string path;        // the file that the folder's line went to, by name
  file_identity identity;  // and in person; unknown after a rotation and before the first line
  long end = 0;            // where that line, or its marker, ended
  std::string gathered;    // a piece on its way to the file; empty between batches
};

/// Writes batches. One thread at a time; keeps what later batches are folded into.
class log_output {
 public:
  /// What is written of one batch at once, in bytes of text. A larger batch is taken as several,
  /// as if the queue had been emptied more often: the file grows by no more than this (and one
  /// line) before it is cut or rotated, and the memory of a flood is given back as it is written.
  static constexpr std::size_t kSlice = log_slice::kSize;

  /// Escapes the texts, writes all entries as the settings say, releases the raw lines and leaves
  /// the queue empty. The file is opened and closed once for a slice, while the effective user is
  /// held. Lines that are written at once have one time, that at which the first of them is put
  /// together; file and echo of one tell the same. Throws nothing: where memory runs out, a part of
  /// that slice may stay unwritten.
  void write(log_queue& batch);

 private:
  void write_slice(const log_slice& slice);
  std::string write_to_file(const log_slice& slice, std::string* unfolded);
  void tell_refusal(const std::string& refusal);

  log_memory memory_;
  std::string told_refusal_;  // the one that standard error was told last
  log_text::clock clock_;
  std::string lines_;  // of the slice at hand, for the echo
};

/// Writes the entries to standard error, releases the raw lines and leaves the queue empty. Texts
/// are escaped, get the timestamp of `clock`, if there is one, and a line end; raw lines are written
/// whole, or without `clock` from their message on.
void write_to_stderr(log_queue& batch, log_text::clock* clock);

/// The log file, open for one batch. Lines are gathered in memory and written in few large pieces;
/// every piece is placed by seeking relative to the end of the file, so that what another process
/// appends meanwhile stays. Deliberate: not opened for appending, because a marker could then not
/// overwrite its predecessor.
///
/// The file may be removed, replaced or shortened by others at any time. A batch that finds another
/// file than the last one left, or a shorter one, writes its first line in full, since the line that
/// a marker would count may be gone; and a marker overwrites the end of the file only where its
/// predecessor still may stand. After a rotation of the log's own the counting goes on in the new
/// file. What is lost with a file that others removed during a batch is not written again.
///
/// After a write that failed the file is shortened to the last whole line of what was written, and
/// the next line is written in full: nobody knows what the disk has of the one before.
class log_file {
 public:
  /// Opens `path` by the rules of `open_log`, creating it when it is missing.
  log_file(const std::string& path, log_memory& memory);
  /// Writes what is gathered, cuts or rotates as the settings say, and closes.
  ~log_file();
  log_file(const log_file&) = delete;
  log_file& operator=(const log_file&) = delete;

  bool is_open() const { return static_cast<bool>(file_); }
  /// Why the file must not be written; empty when it is open, or could not be opened at all.
  const std::string& refusal() const { return refusal_; }

  /// What is gathered to be written at once. The next line (line end included) is put together behind
  /// it; without `end_line` it is dropped.
  std::string& piece() { return memory_.gathered; }
  /// Takes the line that has been put together; one that repeats the one before it gives its place to
  /// its marker.
  void end_line(std::size_t prefix_length);

 private:
  void recall(const std::string& path);
  void put_marker(const log_folder::output& marker);
  void write_gathered();
  long place_for_gathered();
  void drop_torn_line(long begin, std::size_t written);
  void forget();
  void keep_small();

  std::string refusal_;
  xfile file_;
  log_memory& memory_;
  file_identity identity_;       // of the open file
  std::size_t step_back_ = 0;    // the gathered bytes go so many before the end
  std::size_t whole_lines_ = 0;  // of the gathered bytes
};

namespace detail {

/// How pieces reach the log file: fwrite(3). Tests replace it by one that fails.
extern std::atomic<std::size_t (*)(const void*, std::size_t, std::size_t, FILE*)> g_log_fwrite;

}  // namespace detail

}  // namespace muro
