#pragma once

/// A pipe as a pair of owners.

#include "muro/sys/unique_fd.h"

namespace muro {

/// Both ends of a pipe.
struct pipe_ends {
  unique_fd read;
  unique_fd write;
};

/// Makes a pipe with both ends close-on-exec into `out`. False with errno of pipe(2) on failure;
/// `out` is then unchanged. Another thread that forks and runs a program between the pipe's making
/// and its marking must close what it does not know; this program's children do.
bool open_pipe(pipe_ends& out) noexcept;

/// Marks `descriptor` close-on-exec. A failure leaves it unmarked and is not reported.
void set_close_on_exec(int descriptor) noexcept;

}  // namespace muro
