#pragma once

/// Making sockets that never take a reserved descriptor number.

#include "muro/core/hooks.h"

namespace muro {

void init_make_socket();
int make_socket(int domain, int type, int protocol, socket_function make, close_function close);

/// Adds to or takes from the set of descriptor numbers that `make_socket` never returns.
void reserve_descriptor(int descriptor);
void release_reserved_descriptor(int descriptor);

}  // namespace muro
