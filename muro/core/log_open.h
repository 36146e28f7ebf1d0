#pragma once

/// Opening a log file where others may have prepared its place.
///
/// The log is written as root, beside an executable that may lie in a folder where everybody may
/// write. Whoever can put something there under the log's name could otherwise have root append to
/// any file (a link, a second name of it), feed another program (a pipe) or stop the log for ever
/// (a pipe without a reader). So the log is opened only as a regular file, under the one name that
/// it has, owned by the effective user; nothing is written before that is known. The folders in
/// front of the name were configured by root and are trusted: links among them are followed.

#include <sys/stat.h>

#include <cstdio>
#include <string>

namespace muro {

enum class log_access { read, append };

/// Opens `path` with open(2), without following a link and without waiting; `append`, which is for
/// reading and writing at any place, makes a missing file (mode 0666 less the umask, O_EXCL). The
/// stream is the caller's, closed on exec and unbuffered: it holds nothing that exit(3) would flush
/// behind its owner's back.
///
/// Null when the file cannot be opened; `refusal` then tells why it must not be ("it is a link"),
/// and is empty when the system's own calls failed (errno).
FILE* open_log(const std::string& path, log_access access, std::string& refusal);

/// Which file a name or stream stands for. None equals none.
struct file_identity {
  dev_t device = 0;
  ino_t number = 0;
  bool known = false;

  /// Of an open stream; `size` gets what the file has on disk, unless it is not known.
  static file_identity of(FILE* stream, long* size = nullptr);
  /// Of what stands under a name, a link itself included.
  static file_identity of(const std::string& path);

  bool operator==(const file_identity& other) const {
    return known && other.known && device == other.device && number == other.number;
  }
};

}  // namespace muro
