#include "fuzz/fake_log_file.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "fuzz/target.h"
#include "muro/core/log_open.h"
#include "muro/core/log_output.h"

namespace fake {

log_disk& disk = *new log_disk;

namespace {

constexpr int kDescriptor = 1001;

/// An open stream; its cookie is its record.
struct open_file {
  FILE* stream = nullptr;
  std::size_t at = 0;
};

// One for the log, and one more while it is cut.
open_file open_files[2];

bool is_mine(const FILE* stream) {
  return stream != nullptr && (stream == open_files[0].stream || stream == open_files[1].stream);
}

ssize_t read_stream(void* cookie, char* to, std::size_t count) {
  auto& file = *static_cast<open_file*>(cookie);
  const std::size_t copied = disk.content.copy(to, count, std::min(file.at, disk.content.size()));
  file.at += copied;
  return static_cast<ssize_t>(copied);
}

ssize_t write_stream(void* cookie, const char* from, std::size_t count) {
  auto& file = *static_cast<open_file*>(cookie);
  if (disk.content.size() < file.at + count) disk.content.resize(file.at + count);
  disk.content.replace(file.at, count, from, count);
  file.at += count;
  return static_cast<ssize_t>(count);
}

int seek_stream(void* cookie, off64_t* offset, int whence) {
  auto& file = *static_cast<open_file*>(cookie);
  const std::size_t base = whence == SEEK_SET   ? 0
                           : whence == SEEK_CUR ? file.at
                                                : disk.content.size();
  const off64_t wanted = static_cast<off64_t>(base) + *offset;
  if (wanted < 0) return -1;
  file.at = static_cast<std::size_t>(wanted);
  *offset = wanted;
  return 0;
}

int close_stream(void* cookie) {
  *static_cast<open_file*>(cookie) = {};
  return 0;
}

FILE* open_stream(const char* mode) {
  open_file& file = open_files[open_files[0].stream == nullptr ? 0 : 1];
  fuzz::require(file.stream == nullptr, "no more than two streams are open");
  return file.stream =
             ::fopencookie(&file, mode, {read_stream, write_stream, seek_stream, close_stream});
}

std::size_t write_log(const void* from, std::size_t size, std::size_t count, FILE* to) {
  const std::size_t room = std::exchange(disk.room_for_write, static_cast<std::size_t>(-1));
  return std::fwrite(from, size, std::min(count, room), to);
}

muro::file_identity identity_of_disk() {
  return {1, disk.number, true};
}

}  // namespace

void start_log_disk() {
  muro::detail::g_log_fwrite = write_log;
}

}  // namespace fake

using fake::disk;

namespace muro {

FILE* open_log(const std::string&, log_access access, std::string& refusal) {
  refusal = disk.refusal;
  if (!refusal.empty() || disk.cannot_open) return nullptr;
  if (access == log_access::read) return disk.exists ? fake::open_stream("rb") : nullptr;
  disk.exists = true;
  FILE* const stream = fake::open_stream("r+b");
  std::setvbuf(stream, nullptr, _IONBF, 0);
  return stream;
}

file_identity file_identity::of(FILE* stream, long* size) {
  if (!fake::is_mine(stream)) return {};
  if (size != nullptr) *size = static_cast<long>(disk.content.size());
  return fake::identity_of_disk();
}

file_identity file_identity::of(const std::string&) {
  return disk.exists ? fake::identity_of_disk() : file_identity();
}

}  // namespace muro

extern "C" {

int fileno(FILE* stream) noexcept {
  return fake::is_mine(stream) ? fake::kDescriptor : ::fileno_unlocked(stream);
}

int ftruncate(int descriptor, off_t length) noexcept {
  if (descriptor != fake::kDescriptor)
    return static_cast<int>(::syscall(SYS_ftruncate, descriptor, length));
  disk.content.resize(static_cast<std::size_t>(length));
  return 0;
}

ssize_t write(int descriptor, const void* from, std::size_t count) {
  if (descriptor != STDERR_FILENO || !disk.takes_standard_error)
    return ::syscall(SYS_write, descriptor, from, count);
  disk.standard_error.append(static_cast<const char*>(from), count);
  return static_cast<ssize_t>(count);
}
}
