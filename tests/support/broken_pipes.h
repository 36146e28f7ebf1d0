#pragma once

/// Makes pipes fail while it lives.

#include <unistd.h>

#include <cerrno>

#include "muro/sys/pipe_internal.h"

namespace test {

class broken_pipes {
 public:
  /// The first `working` pipes can still be made, the others fail with EMFILE.
  explicit broken_pipes(int working = 0) {
    left() = working;
    muro::detail::g_pipe = [](int ends[2]) {
      if (left()-- > 0) return ::pipe(ends);
      errno = EMFILE;
      return -1;
    };
  }
  ~broken_pipes() { muro::detail::g_pipe = ::pipe; }
  broken_pipes(const broken_pipes&) = delete;
  broken_pipes& operator=(const broken_pipes&) = delete;

 private:
  static int& left() {
    static int count = 0;
    return count;
  }
};

}  // namespace test
