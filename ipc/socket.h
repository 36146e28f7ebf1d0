#pragma once

/// Making sockets that never take a reserved descriptor number.
///
/// A host may reserve descriptor numbers for uses of its own. `make_socket` never returns one of
/// them: a socket that lands on a reserved number is set aside, still open, so that the next one
/// gets another number, and the ones set aside are closed once a free number is found. A host may
/// also take socket creation over altogether, through the hooks of muro/core/hooks.h.

#include "muro/core/hooks.h"

namespace muro {

/// Makes the shared state: the lock and the set of reserved numbers, empty at first. Call once at
/// start-up, before the first socket; a further call changes nothing. Never freed.
void init_make_socket();

/// Makes a socket: a new descriptor, owned by the caller, or -1 with errno as the socket function
/// left it. `make` and `close` may be null: socket(2) and close(2) are then used.
///
/// The first hook that is set gives the result, without the lock and without regard for reserved
/// numbers:
///
///     x_make_socket3   gets both functions, a null one replaced by the default action
///     x_make_socket2   gets the socket function so, the close function as passed
///     x_make_socket    gets both as passed
///
/// Without a hook, -1 with errno ENXIO before `init_make_socket`. Any thread; one retry loop runs
/// at a time. What `make` throws passes on, with everything set aside closed.
int make_socket(int domain, int type, int protocol, socket_function make, close_function close);

/// Adds to or takes from the set of numbers that `make_socket` never returns. Nothing in this
/// program reserves any. Throws ":Error in 'reserve_descriptor'" and
/// ":Error in 'release_reserved_descriptor'" before `init_make_socket`. Any thread.
void reserve_descriptor(int descriptor);
void release_reserved_descriptor(int descriptor);

}  // namespace muro
