#include "muro/sys/xfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/core/fmt.h"
#include "muro/sys/files_internal.h"
#include "muro/sys/unique_fd.h"

namespace muro {

namespace {

constinit std::uint32_t g_crc_table[256] = {};

FILE* open_stream(const std::string& path, const std::string& mode) {
  FILE* const stream = ::fopen(detail::os_path(path), mode.c_str());
  // Not by a mode letter: the oldest supported systems know none for it.
  if (stream != nullptr) ::fcntl(::fileno(stream), F_SETFD, FD_CLOEXEC);
  return stream;
}

/// Makes `path` as an empty file unless something is there (O_EXCL: a link that leads nowhere
/// counts as something, so nobody's link decides where the file appears). A failure shows when it
/// is opened; that another process was faster is none.
void create_missing(const std::string& path) {
  const int descriptor =
      ::open(detail::os_path(path), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (descriptor >= 0) ::close(descriptor);
}

[[noreturn]] void throw_failure(const char* function, const std::string& path) {
  const errno_guard keep;
  // Without the colon in front that the exception's own factories write.
  throw exception(stringify(keep.value(), " (", safe_strerror(keep.value()),
                            ") function=", function, " file=", path));
}

}  // namespace

xfile::xfile(std::string path, mode m, bool throw_on_error, int /*unused*/)
    : throw_on_error_(throw_on_error), path_(std::move(path)) {
  open(m);
}

xfile::xfile(std::string path, FILE* stream)
    : stream_(stream), throw_on_error_(false), path_(std::move(path)) {}

void xfile::open(mode m) {
  int open_flags;
  const std::string mode_text = get_mode(m, open_flags);
  if (mode_text.empty()) return fail("invalid_mode");
  stream_ = open_stream(path_, mode_text);
  if (stream_ == nullptr && m == read_write_create) {
    create_missing(path_);
    stream_ = open_stream(path_, mode_text);
  }
  if (stream_ == nullptr) fail("fopen");
}

xfile::~xfile() {
  // Often runs while a failed write unwinds, whose errno the log wants to see.
  const errno_guard keep;
  if (stream_ != nullptr) std::fclose(stream_);
}

bool xfile::read(std::string& out) {
  constexpr std::size_t kBlock = 65536;
  if (stream_ == nullptr) return false;
  // Read in place: no second buffer, and none of 64 KiB on a thread's small stack.
  const std::size_t before = out.size();
  out.resize(before + kBlock);
  const std::size_t count = std::fread(out.data() + before, 1, kBlock, stream_);
  out.resize(before + count);
  return count > 0;
}

void xfile::write(const std::string& data) {
  write(data.data(), data.size());
}

void xfile::write(const char* data, std::size_t length) {
  if (stream_ == nullptr || std::fwrite(data, 1, length, stream_) != length) fail("fwrite");
}

void xfile::flush() {
  if (stream_ == nullptr || std::fflush(stream_) != 0) fail("fflush");
}

void xfile::close() {
  // fclose gives the stream up even when it fails.
  FILE* const stream = std::exchange(stream_, nullptr);
  if (stream != nullptr && std::fclose(stream) != 0) fail("fclose");
}

int xfile::truncate(unsigned long long length) {
  if (stream_ == nullptr) {
    errno = EBADF;
    return -1;
  }
  return ::ftruncate(::fileno(stream_), static_cast<off_t>(length));
}

void xfile::init() {
  constexpr std::uint32_t kPolynomial = 0x04C11DB7;
  constexpr std::uint32_t kTopBit = 0x80000000;
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t remainder = i << 24;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = (remainder & kTopBit) != 0 ? remainder << 1 ^ kPolynomial : remainder << 1;
    }
    g_crc_table[i] = remainder;
  }
}

const std::uint32_t* xfile::crc_table() {
  return g_crc_table;
}

std::string xfile::get_mode(int m, int& open_flags) {
  open_flags = 0;
  switch (m) {
    case read_only:
      return "rb";
    case write_only:
      return "wb";
    case append:
      return "ab";
    case read_write:
    case read_write_create:
      return "r+b";
    default:
      return "";
  }
}

void xfile::fail(const char* function) const {
  if (throw_on_error_) throw_failure(function, path_);
}

void put_file(std::string path, const std::string& content) {
  xfile file(std::move(path), xfile::write_only, true);
  file.write(content);
  file.close();
}

namespace {

/// Takes a file away at the end of its scope, unless it has become what it was made for.
class unfinished_file {
 public:
  explicit unfinished_file(const std::string& path) : path_(path) {}
  ~unfinished_file() {
    const errno_guard keep;
    if (!is_finished_) ::unlink(detail::os_path(path_));
  }
  unfinished_file(const unfinished_file&) = delete;
  unfinished_file& operator=(const unfinished_file&) = delete;

  void finish() { is_finished_ = true; }

 private:
  const std::string& path_;
  bool is_finished_ = false;
};

bool write_whole(int file, const std::string& content) {
  for (std::size_t at = 0; at < content.size();) {
    const ssize_t written = ::write(file, content.data() + at, content.size() - at);
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) at += static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

void replace_file(const std::string& path, const std::string& beside, const std::string& content,
                  void (*prepare)(const char* beside)) {
  constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  ::unlink(detail::os_path(beside));  // left by a process that was killed
  unique_fd file(::open(detail::os_path(beside), kNew, 0600));
  if (!file.is_open()) throw_failure("fopen", path);
  unfinished_file made(beside);
  if (!write_whole(file.get(), content)) throw_failure("fwrite", path);
  if (::close(file.release()) != 0) throw_failure("fclose", path);
  prepare(detail::os_path(beside));
  if (::rename(detail::os_path(beside), detail::os_path(path)) != 0) throw_failure("fopen", path);
  made.finish();
}

}  // namespace muro
