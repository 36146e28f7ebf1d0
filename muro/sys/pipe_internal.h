#pragma once

/// The inner side of muro/sys/pipe.h, for pipe.cpp and tests alone.

namespace muro::detail {

/// pipe(2); tests replace it to make it fail, while no other thread makes a pipe.
using pipe_function = int (*)(int ends[2]);
extern constinit pipe_function g_pipe;

}  // namespace muro::detail
