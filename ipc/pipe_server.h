#pragma once

/// The thread behind an endpoint: one connection, one request, one reply at a time.
///
/// A request and its reply travel as one frame each:
///
///     offset 0   4 bytes   length of the body, unsigned, in the host's byte order
///     offset 4   length    the body: a packet (ipc/packet.h)
///
/// A body has at most 1 MiB (0x100000 bytes); a longer one is refused in both directions. On a
/// little-endian machine the request "ab" is 02 00 00 00 61 62.
///
/// Whatever is wrong with a connection costs that connection and nothing else: a frame that is
/// broken, short or too long, a client that goes away, and one that does not send its request or
/// take its reply within 30 seconds are dropped without a reply, and the next client is served. A
/// client that cannot be accepted, for want of descriptors or memory, waits in the queue; the
/// thread tries again ten times a second, and so recovers by itself.

#include <sys/socket.h>

#include <string>

#include "muro/sys/pipe.h"
#include "muro/sys/thread.h"
#include "muro/sys/unique_fd.h"

namespace muro {
class ipc;
}

class pipe_server : public muro::thread {
 public:
  struct settings {
    /// The thread starts with `serve()` instead of in the constructor; until then clients wait in
    /// the listening socket's queue.
    bool deferred = false;
    /// How long one whole frame may take, in each direction.
    long long frame_limit_ms = 30000;
    /// accept(2), or what a test puts in its place.
    int (*accept)(int, sockaddr*, socklen_t*) = ::accept;
  };

  /// Serves `listening_socket`, which it owns from the moment the constructor returns; `endpoint`
  /// is not owned and its `handle_connection` runs on this thread. Throws `muro::exception`
  /// ":Error from 'pipe' (called in 'pipe_server'): ..." when the stop pipe cannot be made, and
  /// what `muro::thread::detach` throws; the socket then still belongs to the caller.
  pipe_server(int listening_socket, muro::ipc* endpoint);
  pipe_server(int listening_socket, muro::ipc* endpoint, const settings& how);

  /// Tells the thread to stop, waits for its end, then closes the stop pipe and the listening
  /// socket. A transfer under way is broken off; a request that is being handled is finished first,
  /// which only the handler can delay. Any failure ends the process.
  ~pipe_server() override;

  /// Starts a deferred server; nothing when it runs already. Throws what `detach` throws.
  void serve();

  /// One whole frame, for clients as well: no time limit, the caller has its own. False on a
  /// failure of the transfer below or a length above 1 MiB (nothing is written then). After a
  /// failed read `out` holds anything.
  static bool read_(int descriptor, std::string& out);
  static bool write_(int descriptor, const std::string& body);

  /// Exactly `length` bytes, in as many calls as it takes; 0 succeeds at once. False as soon as a
  /// read(2) or write(2) gives 0 or less, with errno of that call. EINTR is not retried. A negative
  /// length is refused.
  static bool read_(int descriptor, unsigned char* bytes, int length);
  static bool write_(int descriptor, const unsigned char* bytes, int length);

 protected:
  void run() override;

 private:
  bool wait_for_client();
  muro::unique_fd accept_client();
  void serve_connection(muro::unique_fd accepted);
  bool wait_for_handler();
  bool stop_within(int wait_ms);

  muro::unique_fd listening_;
  muro::ipc* endpoint_;
  muro::pipe_ends stop_pipe_;
  settings how_;
  std::string request_;  // kept, so that its room is not zeroed anew; the server's thread only
  int failures_in_a_row_ = 0;  // of accept; the server's thread only
  bool serving_ = false;       // the owner's thread only
};
