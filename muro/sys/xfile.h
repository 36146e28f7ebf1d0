#pragma once

/// A standard I/O stream opened in binary mode, with one failure rule.

#include <cstdio>
#include <string>

namespace muro {

class xfile {
 public:
  enum mode { read_only = 0, write_only = 1, append = 2, read_write = 3, read_write_create = 4 };

  xfile(std::string path, mode m, bool throw_on_error, int unused = 0);
  ~xfile();
  xfile(const xfile&) = delete;
  xfile& operator=(const xfile&) = delete;

  operator FILE*() const { return stream_; }
  explicit operator bool() const { return stream_ != nullptr; }
  const std::string& path() const { return path_; }

  bool read(std::string& out);
  void write(const std::string& data);
  void write(const char* data, std::size_t length);
  void flush();
  void close();
  int truncate(unsigned long long length);

  static void init();
  static std::string get_mode(int m, int& open_flags);

 private:
  void fail(const char* function) const;

  FILE* stream_ = nullptr;
  bool throw_on_error_;
  std::string path_;
};

void put_file(std::string path, const std::string& content);

}  // namespace muro
