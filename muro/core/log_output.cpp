#include "muro/core/log_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "muro/core/errno_guard.h"
#include "muro/core/log_settings.h"
#include "muro/sys/user_switch.h"

namespace muro {

namespace {

constexpr std::size_t kPiece = 0x10000;

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

}  // namespace

void log_output::write(std::vector<log_entry>& batch) {
  escape(batch);
  if (const sink_function sink = log_direct_sink) {
    for (const log_entry& entry : batch) write_to_sink(entry, sink);
    return;
  }
  write_to_file(batch);
  if (log_to_stderr) write_to_stderr(batch, log_stderr_timestamps ? &clock_ : nullptr);
}

void log_output::write_to_file(const std::vector<log_entry>& batch) {
  const std::string name = log_file_name();
  if (name.empty()) return;
  // Another file has not got the line that its marker would follow.
  if (name != folded_file_) folder_.forget();
  folded_file_ = name;
  const effective_user_gate as_root;
  log_file file(name, folder_);
  if (!file.is_open()) return;
  for (const log_entry& entry : batch) write_to_log_file(entry, file, clock_);
}

void escape(std::vector<log_entry>& batch) {
  for (log_entry& entry : batch) {
    if (auto* text = std::get_if<std::string>(&entry)) log_text::escape(*text);
  }
}

void write_to_stderr(const std::vector<log_entry>& batch, log_text::clock* clock) {
  std::string gathered;
  for (const log_entry& entry : batch) {
    append_for_stderr(gathered, entry, clock);
    if (gathered.size() < kPiece) continue;
    write_bytes_to_stderr(gathered);
    gathered.clear();
  }
  write_bytes_to_stderr(gathered);
}

void release(std::vector<log_entry>& batch) {
  for (const log_entry& entry : batch) {
    const auto* raw = std::get_if<raw_log_line>(&entry);
    if (raw == nullptr || raw->release == nullptr) continue;
    try {
      raw->release(raw->data);
    } catch (...) {
      // The producer's own affair.
    }
  }
  batch.clear();
}

}  // namespace muro
