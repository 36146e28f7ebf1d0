#include "muro/sys/user_switch.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/thread.h"

namespace muro {
namespace {

pthread_mutex_t gate = PTHREAD_MUTEX_INITIALIZER;

// What seteuid says of a number that it could not even be asked about. (uid_t)-1 stands for "leave
// it as it is" in the kernel's calls, so it is no user either.
int refusal(unsigned long long uid) {
  if (static_cast<uid_t>(uid) != uid || static_cast<uid_t>(uid) == static_cast<uid_t>(-1)) {
    return EINVAL;
  }
  return ::geteuid() != 0 ? EPERM : 0;
}

}  // namespace

effective_user_gate::effective_user_gate() {
  ::pthread_mutex_lock(&gate);
}

effective_user_gate::~effective_user_gate() {
  const errno_guard keep_errno;
  ::pthread_mutex_unlock(&gate);
}

user_switch::user_switch(unsigned long long uid, const char* caller) {
  errno = refusal(uid);
  if (errno != 0 || ::seteuid(static_cast<uid_t>(uid)) != 0) {
    throw exception::system_error(caller, "seteuid");
  }
}

user_switch::~user_switch() {
  const errno_guard keep_errno;
  if (::seteuid(0) != 0) silent_terminate(false);
}

}  // namespace muro
