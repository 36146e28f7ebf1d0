#pragma once

/// The part of macOS's <libproc.h> and <sys/proc_info.h> that the seam uses.

#include <stdint.h>

#define PROC_PIDLISTFDS 1

struct proc_fdinfo {
  int32_t proc_fd;
  uint32_t proc_fdtype;
};

extern "C" int proc_pidinfo(int pid, int flavor, uint64_t arg, void* buffer, int buffersize);
