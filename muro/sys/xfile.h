#pragma once

/// A standard I/O stream opened in binary mode, with one failure rule.
///
/// An object made with `throw_on_error` turns every failure into a `muro::exception` whose text is
/// "ERRNO (TEXT) function=CALL file=PATH", for example
/// "2 (No such file or directory) function=fopen file=/tmp/x". One made without is silent: the
/// operation has no effect and only the object's state tells. `errno` is that of the failed call
/// while the exception is caught. Where no call was made (an invalid mode; writing to, or flushing,
/// what is not open) the number is what the thread's `errno` held before.
///
/// One thread at a time. Descriptors are closed on exec.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace muro {

class xfile {
 public:
  enum mode : int {
    read_only = 0,         // "rb"
    write_only = 1,        // "wb": creates or truncates
    append = 2,            // "ab"
    read_write = 3,        // "r+b": the file must exist
    read_write_create = 4  // "r+b": created when missing, never truncated
  };

  /// Opens at once; after a failure the object is closed. Fails as "fopen", or as "invalid_mode"
  /// for any other mode. `unused` has no meaning.
  xfile(std::string path, mode m, bool throw_on_error, int unused = 0);
  /// Takes over a stream that the caller has opened by rules of its own, or null: a closed object.
  /// Silent. `path` only names it.
  xfile(std::string path, FILE* stream);
  /// Closes; failures are lost, so who wrote calls `close` first. Keeps `errno`.
  ~xfile();
  xfile(const xfile&) = delete;
  xfile& operator=(const xfile&) = delete;

  /// The stream, owned by this object; null when closed.
  operator FILE*() const { return stream_; }
  explicit operator bool() const { return stream_ != nullptr; }
  /// The name as given.
  const std::string& path() const { return path_; }

  /// Appends up to 65536 bytes to `out`. True when there was at least one; false at the end of the
  /// file, on an error, and when closed. Never reports.
  bool read(std::string& out);

  /// Writes the whole block; fails as "fwrite". The stream buffers: an error of the disk may show
  /// only at `flush` or `close`.
  void write(const std::string& data);
  void write(const char* data, std::size_t length);

  /// Fails as "fflush".
  void flush();

  /// Closes an open file, a second call does nothing. Fails as "fclose"; the object is closed then
  /// too.
  void close();

  /// `ftruncate` as it is: 0, or -1 with `errno`, EBADF when closed. What the stream still buffers
  /// is not flushed first. Never reports.
  int truncate(unsigned long long length);

  /// Fills the table behind `crc_table`; a step of the runtime's start.
  static void init();
  /// 256 entries of CRC-32 with the polynomial 0x04C11DB7, most significant bit first: entry i is
  /// the remainder of byte i moved in at the top. All 0 before `init`. Read by nothing in this
  /// system.
  static const std::uint32_t* crc_table();

  /// The `fopen` mode for `m`, empty for one that there is not. `open_flags` becomes 0.
  static std::string get_mode(int m, int& open_flags);

 private:
  void open(mode m);
  void fail(const char* function) const;

  FILE* stream_ = nullptr;
  bool throw_on_error_;
  std::string path_;
};

/// Writes a whole file anew. Every failure throws, that of the final close included; what was
/// written so far stays then.
void put_file(std::string path, const std::string& content);

/// Writes a whole file anew beside `path` and puts it in the place of `path` in one step, whatever
/// was there: at every instant `path` is what it was, or the whole new file. `beside` is a path in
/// the same folder; what stands there goes. The new file is the effective user's with mode 0600
/// until `prepare` has been called with its path, once it is written and closed; nobody else can
/// open it before. A failure throws as `put_file` does, with `path` in the text; "fopen" is also the
/// name of a failed renaming. `path` is untouched then and nothing stays at `beside`.
void replace_file(const std::string& path, const std::string& beside, const std::string& content,
                  void (*prepare)(const char* beside));

}  // namespace muro
