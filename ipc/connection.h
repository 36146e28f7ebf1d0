#pragma once

/// Private to ipc: the server's end of one connection, which no client can hold for ever.

#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"

namespace ipc_priv {

/// Moves bytes over an accepted connection, each transfer within a time limit and only until the
/// server is told to stop. The connection itself is in blocking mode, as its handler may expect;
/// the transfers here wait in poll, together with the stop pipe, and never in a read or write.
/// What a client has sent already is taken even when the server is to stop meanwhile.
/// Belongs to the server's thread.
class connection {
 public:
  /// Owns `descriptor`. `stop` becomes readable when the server is to end; not owned.
  connection(muro::unique_fd descriptor, int stop, long long limit_ms);

  int descriptor() const { return descriptor_.get(); }

  /// Starts a transfer: from now on it has the whole limit.
  void begin_transfer();

  /// Move exactly `length` bytes. False when the peer has closed, on an error (EINTR of a read or
  /// write included), when the limit is over or when the server is to stop. errno says nothing.
  bool read(unsigned char* bytes, int length);
  bool write(const unsigned char* bytes, int length);

 private:
  bool wait_for(short event);

  muro::unique_fd descriptor_;
  int stop_;
  long long limit_ms_;
  muro::time_limit limit_;
};

}  // namespace ipc_priv
