#include "muro/sys/pipe.h"

#include <fcntl.h>

#include "muro/sys/pipe_internal.h"

namespace muro {

constinit detail::pipe_function detail::g_pipe = ::pipe;

void set_close_on_exec(int descriptor) noexcept {
  ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);  // there is no other descriptor flag (fcntl(2))
}

bool open_pipe(pipe_ends& out) noexcept {
  int ends[2];
  if (detail::g_pipe(ends) != 0) return false;
  out.read.reset(ends[0]);
  out.write.reset(ends[1]);
  set_close_on_exec(ends[0]);
  set_close_on_exec(ends[1]);
  return true;
}

}  // namespace muro
