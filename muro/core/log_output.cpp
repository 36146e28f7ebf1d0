#include "muro/core/log_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "muro/core/errno_guard.h"
#include "muro/core/log_settings.h"
#include "muro/sys/user_switch.h"

namespace muro {

namespace {

/// The memory for lines that is kept between batches: what a slice of usual lines needs. Larger
/// ones give theirs back.
constexpr std::size_t kKeptLines = log_output::kSlice + 0x10000;

/// How long a standard error that is full and does not block may hold up the log.
constexpr int kRoomWait_ms = 1000;

bool worth_another_try() {
  if (errno == EINTR) return true;
  if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
  pollfd room{STDERR_FILENO, POLLOUT, 0};
  return ::poll(&room, 1, kRoomWait_ms) > 0 && (room.revents & POLLOUT) != 0;
}

/// Writes past stdio, whose locks and buffers are the exit handlers' when the process ends.
void write_bytes_to_stderr(std::string_view bytes) {
  const errno_guard keep;
  while (!bytes.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (!worth_another_try()) {
      return;
    }
  }
}

void append_stamped(std::string& out, const log_entry& entry, std::string_view stamp) {
  if (entry.raw != nullptr) {
    out += entry.raw->bytes();
    return;
  }
  (out += stamp) += ' ';
  log_text::append_escaped(out, entry.text);
  out += '\n';
}

void append_unstamped(std::string& out, const log_entry& entry) {
  if (const raw_log_line* const raw = entry.raw) {
    out += raw->message();
    return;
  }
  log_text::append_escaped(out, entry.text);
  out += '\n';
}

/// Puts the lines of a slice into `out`, stamped by `clock` if there is one.
void gather(std::string& out, const log_slice& slice, log_text::clock* clock) {
  out.clear();
  out.reserve(slice.length());
  if (clock == nullptr) {
    slice.for_each([&](const log_entry& entry) { append_unstamped(out, entry); });
  } else {
    const std::string& stamp = clock->now();
    slice.for_each([&](const log_entry& entry) { append_stamped(out, entry, stamp); });
  }
}

using sink_function = void (*)(const char*, std::size_t);

void write_to_sink(const log_entry& entry, sink_function sink) try {
  if (const raw_log_line* const raw = entry.raw) {
    const std::string_view text = log_text::without_line_end(raw->message());
    sink(text.data(), text.size());
  } else {
    std::string text;
    log_text::append_escaped(text, entry.text);
    sink(text.data(), text.size());
  }
} catch (...) {
  // A host's failure is no reason to lose the lines behind this one.
}

/// Gives raw lines back to their producers.
void release(const log_slice& slice) {
  slice.for_each([](const log_entry& entry) {
    if (entry.raw == nullptr || entry.raw->release == nullptr) return;
    try {
      entry.raw->release(entry.raw->data);
    } catch (...) {
      // The producer's own affair.
    }
  });
}

/// Writes the slices of a batch one after the other, whatever becomes of each, and empties it.
template <class Write>
void write_slices(log_queue& batch, Write write) {
  while (!batch.empty()) {
    try {
      write(batch.front());
    } catch (...) {
      // Out of memory: the next slice may find better times.
    }
    release(batch.front());
    batch.pop_front();
  }
}

}  // namespace

void log_output::write(log_queue& batch) {
  write_slices(batch, [this](const log_slice& slice) { write_slice(slice); });
  if (lines_.capacity() > kKeptLines) std::string().swap(lines_);
}

void log_output::write_slice(const log_slice& slice) {
  if (const sink_function sink = log_direct_sink) {
    slice.for_each([sink](const log_entry& entry) { write_to_sink(entry, sink); });
    return;
  }
  const bool echo = log_to_stderr, stamped = log_stderr_timestamps;
  lines_.clear();
  const std::string refusal = write_to_file(slice, echo && stamped ? &lines_ : nullptr);
  tell_refusal(refusal);
  // A file that must not be written is no reason to lose a line, echo or not.
  if (!echo && refusal.empty()) return;
  if (lines_.empty()) gather(lines_, slice, stamped ? &clock_ : nullptr);
  write_bytes_to_stderr(lines_);
}

/// Gives why the file must not be written; empty when it was, when it cannot be opened at all
/// (which leaves the echo), and without a file. `unfolded` (if any) gets the lines too, as they would
/// stand in the file without folding.
std::string log_output::write_to_file(const log_slice& slice, std::string* unfolded) {
  const std::string name = log_file_name();
  if (name.empty()) return "";
  const effective_user_gate as_root;
  log_file file(name, memory_);
  if (!file.refusal().empty()) return "log file " + name + " is not used: " + file.refusal();
  if (!file.is_open()) return "";
  if (unfolded != nullptr) unfolded->reserve(slice.length());
  std::string_view stamp;
  slice.for_each([&](const log_entry& entry) {
    std::string& piece = file.piece();
    const std::size_t begin = piece.size();
    if (begin == 0) stamp = clock_.now();
    append_stamped(piece, entry, stamp);
    if (unfolded != nullptr) unfolded->append(piece, begin);
    file.end_line(entry.raw != nullptr ? entry.raw->prefix_length : stamp.size());
  });
  return "";
}

/// Once, not for every batch, and past the queue: a line about lines would never come to an end.
void log_output::tell_refusal(const std::string& refusal) {
  if (refusal == told_refusal_) return;
  told_refusal_ = refusal;
  if (refusal.empty()) return;
  log_queue notice;
  notice.push(text_parts{"", "errlog", refusal});
  write_to_stderr(notice, log_stderr_timestamps ? &clock_ : nullptr);
}

void write_to_stderr(log_queue& batch, log_text::clock* clock) {
  std::string lines;
  write_slices(batch, [&](const log_slice& slice) {
    gather(lines, slice, clock);
    write_bytes_to_stderr(lines);
  });
}

}  // namespace muro
