#include "muro/core/log_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "muro/core/errno_guard.h"
#include "muro/core/log_settings.h"
#include "muro/sys/user_switch.h"

namespace muro {

namespace {

constexpr std::size_t kPiece = 0x10000;

/// Timestamp, blank and line end.
constexpr std::size_t kLineCost = 22;

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

void append_for_stderr(std::string& out, const log_entry& entry, log_text::clock* clock) {
  if (const auto* raw = std::get_if<raw_log_line>(&entry)) {
    out += clock != nullptr ? raw->bytes() : raw->message();
    return;
  }
  if (clock != nullptr) (out += clock->now()) += ' ';
  (out += std::get<std::string>(entry)) += '\n';
}

using sink_function = void (*)(const char*, std::size_t);

void write_to_sink(const log_entry& entry, sink_function sink) try {
  if (const auto* raw = std::get_if<raw_log_line>(&entry)) {
    const std::string_view message = log_text::without_line_end(raw->message());
    sink(message.data(), message.size());
  } else {
    const std::string& text = std::get<std::string>(entry);
    sink(text.data(), text.size());
  }
} catch (...) {
  // A host's failure is no reason to lose the lines behind this one.
}

void write_to_log_file(const log_entry& entry, log_file& file, log_text::clock& clock) {
  if (const auto* raw = std::get_if<raw_log_line>(&entry)) {
    file.write(raw->bytes(), raw->prefix_length);
    return;
  }
  const std::string& text = std::get<std::string>(entry);
  std::string line = clock.now();
  const std::size_t prefix_length = line.size();
  line.reserve(prefix_length + text.size() + 2);
  ((line += ' ') += text) += '\n';
  file.write(line, prefix_length);
}

std::size_t length_of(const log_entry& entry) {
  const auto* raw = std::get_if<raw_log_line>(&entry);
  return raw != nullptr ? raw->length : std::get<std::string>(entry).size();
}

/// How many of the entries make one slice: one more than fit in, at least one.
std::size_t slice_length(std::span<const log_entry> entries) {
  std::size_t count = 0;
  for (std::size_t bytes = 0; count < entries.size() && bytes < log_output::kSlice; ++count) {
    bytes += length_of(entries[count]) + kLineCost;
  }
  return count;
}

}  // namespace

void log_output::write(std::vector<log_entry>& batch) {
  std::span<log_entry> rest(batch);
  while (!rest.empty()) {
    const std::span<log_entry> slice = rest.first(slice_length(rest));
    try {
      write_slice(slice);
    } catch (...) {
      // Out of memory: the next slice may find better times.
    }
    release(slice);
    rest = rest.subspan(slice.size());
  }
}

void log_output::write_slice(std::span<log_entry> slice) {
  escape(slice);
  if (const sink_function sink = log_direct_sink) {
    for (const log_entry& entry : slice) write_to_sink(entry, sink);
    return;
  }
  const std::string refusal = write_to_file(slice);
  tell_refusal(refusal);
  // A file that must not be written is no reason to lose a line, echo or not.
  if (!log_to_stderr && refusal.empty()) return;
  write_to_stderr(slice, log_stderr_timestamps ? &clock_ : nullptr);
}

/// Gives why the file must not be written; empty when it was, when it cannot be opened at all
/// (which leaves the echo), and without a file.
std::string log_output::write_to_file(std::span<const log_entry> slice) {
  const std::string name = log_file_name();
  if (name.empty()) return "";
  const effective_user_gate as_root;
  log_file file(name, memory_);
  if (!file.refusal().empty()) return "log file " + name + " is not used: " + file.refusal();
  if (!file.is_open()) return "";
  for (const log_entry& entry : slice) write_to_log_file(entry, file, clock_);
  return "";
}

/// Once, not for every batch, and past the queue: a line about lines would never come to an end.
void log_output::tell_refusal(const std::string& refusal) {
  if (refusal == told_refusal_) return;
  told_refusal_ = refusal;
  if (refusal.empty()) return;
  std::vector<log_entry> notice{"errlog: " + refusal};
  escape(notice);
  write_to_stderr(notice, log_stderr_timestamps ? &clock_ : nullptr);
}

void escape(std::span<log_entry> batch) {
  for (log_entry& entry : batch) {
    if (auto* text = std::get_if<std::string>(&entry)) log_text::escape(*text);
  }
}

void write_to_stderr(std::span<const log_entry> batch, log_text::clock* clock) {
  std::string gathered;
  for (const log_entry& entry : batch) {
    append_for_stderr(gathered, entry, clock);
    if (gathered.size() < kPiece) continue;
    write_bytes_to_stderr(gathered);
    gathered.clear();
  }
  write_bytes_to_stderr(gathered);
}

void release(std::span<log_entry> batch) {
  for (log_entry& entry : batch) {
    const log_entry done = std::exchange(entry, std::string());
    const auto* raw = std::get_if<raw_log_line>(&done);
    if (raw == nullptr || raw->release == nullptr) continue;
    try {
      raw->release(raw->data);
    } catch (...) {
      // The producer's own affair.
    }
  }
}

}  // namespace muro
