#pragma once

/// The local request and reply endpoint.
///
/// An endpoint is a named stream socket on this machine. Another process connects, sends one
/// request, receives one reply and is disconnected (the frames are told in ipc/pipe_server.h). Its
/// socket file is "/tmp/NAME.ipc".
///
/// A class derives from `muro::ipc` and overrides `handle_request`, which runs on the endpoint's
/// thread. The thread may call it at any moment from the start of serving to its end, so a handler
/// with members of its own makes sure that both lie within its own life:
///
///     class handler : public muro::ipc {
///      public:
///       handler() : ipc("name", false, false, defer_serving) { serve(); }
///       ~handler() override { stop_serving(); }
///       ...
///
/// A class that does neither serves from the end of the base's constructor to the start of its
/// destructor. Requests that come before the derived part exists wait for it, but a handler still
/// running when the derived members go away works on dead ones.

#include <memory>
#include <string>

class pipe_server;

namespace muro {

class ipc {
 public:
  /// Opens the endpoint and starts serving at once. `restricted` gives the socket file mode 0660,
  /// else 0666. A socket that cannot be made, bound, listened on or given its mode leaves no
  /// descriptor and no file behind; then, with `throw_on_failure`, `muro::exception`
  /// ":Error from 'socket' (called in 'ipc'): ..." is thrown, else one line is logged on "ipc",
  /// "endpoint PATH cannot be opened: TEXT", and the object exists but answers nobody. What
  /// `pipe_server` throws passes on in both cases.
  ipc(const std::string& name, bool throw_on_failure, bool restricted);

  /// `stop_serving()`.
  virtual ~ipc();
  ipc(const ipc&) = delete;
  ipc& operator=(const ipc&) = delete;

  /// One connection: the reply to `request`, read from the connection `descriptor`, which stays the
  /// server's. The default gives what `handle_request` gives. On the endpoint's thread; an
  /// exception that escapes ends the process.
  virtual std::string handle_connection(long descriptor, const std::string& request);

  /// The reply to `request`. On the endpoint's thread, one request at a time; an exception that
  /// escapes ends the process.
  virtual std::string handle_request(const std::string& request) = 0;

 protected:
  struct defer_serving_t {};
  static constexpr defer_serving_t defer_serving{};

  /// Opens the endpoint as above, but clients wait in its queue until `serve()`.
  ipc(const std::string& name, bool throw_on_failure, bool restricted, defer_serving_t);

  /// Starts serving; nothing when it serves already or could not be opened. Call it last in the
  /// most derived constructor. Throws what `muro::thread::detach` throws.
  void serve();

  /// Ends serving: waits for a request that is being handled, breaks off any transfer, closes the
  /// listening socket, and deletes the socket file, whose failure is passed over. Deliberate: the
  /// file at the path is deleted even when a later endpoint of the same name has put its own there.
  /// Call it first in the most derived destructor; later calls do nothing. Keeps errno.
  void stop_serving() noexcept;

 private:
  ipc(const std::string& name, bool throw_on_failure, bool restricted, bool deferred);

  std::unique_ptr<pipe_server> server_;  // null: nothing is served
  std::string path_;
};

/// Counters of the library, 0; kept for hosts, nothing here changes them.
extern int ipc_base_count;
extern int ipc_base_server_count;
extern int ipc_base_client_count;

}  // namespace muro

namespace ipc_priv {

/// The room for a path in a local socket's address, on every system that is supported: some have
/// more, but the address that is used is the same everywhere.
inline constexpr std::size_t kSocketPathRoom = 104;

/// Opens the socket of the endpoint `name`: bound and listening (backlog 20) for a `server`, else
/// connected. `path` receives the socket file's path, "/tmp/" + `name` + ".ipc", with `per_user`
/// the home folder (`muro::user_dir`, which may throw) in place of "/tmp". `descriptor` receives
/// the socket, close-on-exec and in blocking mode for a server, or -1. False on failure, errno that
/// of the failed call, EINVAL for a path with a zero byte; what `descriptor` holds then still has to
/// be closed by the caller.
///
/// A server removes an old file at the path first, and gives the new one mode 0660 if `restricted`,
/// else 0666. If it fails after the file was made, it removes it.
///
/// A path of more than 103 bytes is cut to 104 in the address, without a terminator. `path` still
/// receives all of it; the file on disk has the cut name (`socket_file`), and removing it and
/// setting its mode mean that file, so such an endpoint works. Names that only differ behind the
/// cut are the same endpoint.
bool init_ipc_socket(std::string& path, const std::string& name, bool server, int& descriptor,
                     bool restricted, bool per_user);

/// The name on disk of the socket whose path is `path`.
std::string socket_file(const std::string& path);

}  // namespace ipc_priv
