#pragma once

/// Starting a process in namespaces of its own, whatever rights the caller has.
///
/// Three ways are known, tried in this order until one works:
///
///   plain        real root with CAP_SYS_ADMIN; ids inside are ids outside
///   subuid map   a user namespace; 0 inside is the caller, 1 and up are the caller's subordinate
///                ids of /etc/subuid and /etc/subgid (needs newuidmap and newgidmap)
///   single id    a user namespace in which the caller is root and nobody else exists; giving a
///                file to another user or becoming one fails with EINVAL
///
/// Sources: namespaces(7), user_namespaces(7), clone(2), newuidmap(1).

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "sim/posix_kit.h"

namespace macroot {

enum class id_mode { plain, subuid, single };

/// "plain", "subuid" or "single".
const char* name_of(id_mode mode);

/// A first process that has finished its set-up.
struct first_process {
  pid_t pid;        ///< as the caller sees it
  id_mode mode;     ///< the way that worked
  unique_fd alive;  ///< keep it open as long as the root is to live
};

/// What the new process runs: sets up the root, throws `failure` where that is impossible, then
/// calls `ready` once and never returns. It is process 1 of its namespaces, uid and gid 0, single
/// threaded, and dies when the caller's thread does.
using first_body = std::function<void(id_mode mode, const std::function<void()>& ready)>;

/// Starts `body` in namespaces of its own and waits until it is ready. Throws `failure` with the
/// reason of every way when none works; nothing is left running then.
first_process start_namespaced(const first_body& body);

}  // namespace macroot
