#pragma once

/// Running a command in a user's launchd session before 10.10, through launchd's own per-user
/// socket: root cannot enter a user's launchd context there, but launchd runs jobs in it.
///
///     launchd_exec       remove what an earlier run left, submit a one-shot job, remove it again
///      `- launchd_call   one request, and whether its reply is an answer
///          `- send_to_sock   one message out, one message in
///
/// A message is a header of 16 bytes and one packed item (osx/launch_data.h); both words are in
/// host byte order:
///
///     | magic 0xD2FEA02366B39A41 | length of header and body | body ...
///       8                          8
///
/// No descriptors travel along. The functions run on the caller's thread, log through scopes named
/// after themselves, and give one exchange 10 seconds in all (osx/launchd_wait.h): who stands behind
/// the socket is the user's choice.

#include <string>
#include <vector>

#include "netbuf/netbuf.h"

/// Connects to the socket at `socket_path` with the rights of user `uid`, as launchd demands of the
/// caller (process must be user 0; see muro/sys/user_switch.h), sends `body` and returns the
/// reply's body.
///
/// Deliberate: the reply counts as complete as soon as its header is there and it holds no more
/// bytes than the header declares; what is missing is not waited for. A reply that holds more than
/// it declares is read on until it breaks off or reaches 16 MiB.
///
/// Throws `muro::exception`:
///
///     the path and its terminator exceed 104 bytes
///         ":Error in 'send_to_sock': socket path too long"
///     the user's rights cannot be taken; nothing was connected
///         ":Error from 'seteuid' (called in 'send_to_sock'): " ...
///     no socket; a zero byte in the path; bad magic; declared length 16 or less; reply over 16 MiB
///         ":Error in 'send_to_sock'"
///     no connection
///         ":Error from 'connect' (called in 'send_to_sock'): [cannot connect] " ...
///     sending fails
///         ":Error from 'sendmsg' (called in 'send_to_sock'): [while sending to launchd] " ...
///     receiving fails, the time is over (ETIMEDOUT), the peer has closed, or sends descriptors
///         ":Error from 'recvmsg' (called in 'send_to_sock'): [while receiving from launchd] " ...
///
/// "..." is errno and its text; errno is 0 where receiving ended without an error.
netbuf send_to_sock(unsigned long long uid, const std::string& socket_path, netbuf body);

/// Sends one request and returns, 100 ms after the reply, when that is an error number.
///
/// Deliberate: every error number is an answer, zero or not. Throws `muro::exception`
/// ":Error in 'launchd_call'" for any other item, ":Error in 'pop'" for a reply of fewer than 24
/// bytes, and what `send_to_sock` throws.
void launchd_call(unsigned long long uid, const std::string& socket_path, netbuf body);

namespace osx {

/// Runs `command`, program path first, as the job "norvane.jobsubmit" in the launchd session of
/// user `uid`. A user without a session is logged and passed over, and a `muro::exception` while
/// the job is submitted is logged; every other exception passes on.
void launchd_exec(unsigned long long uid, std::vector<std::string> command);

}  // namespace osx
