#pragma once

/// The effective user of the process, switched for a scope, and the gate that keeps other threads'
/// file work out of that scope.
///
/// The effective user id belongs to the whole process: while one thread borrows a user's rights,
/// every other thread has them too. What must be done as root meanwhile waits at the gate:
///
///     send_to_sock                        log dumper
///     user_switch as_user(501, caller);   effective_user_gate as_root;
///     socket, connect                     open, create, rotate the log file
///     (user 0 again, gate open)           (gate open)
///
/// The gate is one process-wide mutex, constant-initialised and never destroyed; it is not
/// recursive. Whoever holds it neither waits for the log nor takes another lock.

#include <sys/types.h>

namespace muro {

/// Holds the gate: inside this scope the effective user stays what it is.
class effective_user_gate {
 public:
  effective_user_gate();
  /// Keeps errno.
  ~effective_user_gate();
  effective_user_gate(const effective_user_gate&) = delete;
  effective_user_gate& operator=(const effective_user_gate&) = delete;
};

/// Borrows the rights of a user: holds the gate and makes the process act as `uid`, until the
/// destructor makes it user 0 again.
class user_switch {
 public:
  /// Waits for the gate, then `seteuid(uid)` (seteuid(2)). Throws `muro::exception`
  /// ":Error from 'seteuid' (called in 'CALLER'): " with number and text, the effective user
  /// unchanged and the gate open, when the system refuses, when `uid` fits no user id (EINVAL), or
  /// when the process is not user 0 to begin with and so could not come back (EPERM).
  user_switch(unsigned long long uid, const char* caller);

  /// Makes user 0 the effective user again and opens the gate; keeps errno. If the system refuses,
  /// the process ends at once by SIGKILL, without unwinding and without exit handlers: nothing of
  /// it may run on as a user, and launchd starts it afresh.
  ~user_switch();

  user_switch(const user_switch&) = delete;
  user_switch& operator=(const user_switch&) = delete;

 private:
  effective_user_gate gate_;
};

}  // namespace muro
