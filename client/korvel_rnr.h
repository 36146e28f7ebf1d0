#pragma once

/// libkorvel_rnr: how a client asks the Korvel helper to bring its session back after a restart.
/// Plain C99, no dependency but the C library; C++ may include it as it is.
///
///     korvel_rnr_status status =
///         korvel_rnr_register(KORVEL_RNR_SHARED_ENDPOINT, "/tmp/abc.dat", 60000);
///     if (status != KORVEL_RNR_DONE) fprintf(stderr, "%s\n", korvel_rnr_status_text(status));
///
/// One call is one connection: a frame goes to the endpoint's socket, an empty frame comes back.
///
///     offset  size    content
///     0       4       length L of the packet, least significant byte first, at most 1,048,576
///     4       L       argument, its length as a number field, command, its length as a number field
///
/// A number field is the value's bytes, least significant first and none for 0, and one byte that
/// counts them. The empty answer says only that the request has arrived: whoever must know what came
/// of it looks for the restore file (a registered one has moved away) or into the helper's log.
///
/// No call keeps state, raises SIGPIPE, or blocks past its time limit; any thread may call. The
/// limit runs on the system's monotonic clock over all of a call, connecting included. Where a system
/// call has failed, errno holds its reason on return.

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// What became of a call. The numbers stay; they are `rnrctl`'s exit statuses too.
typedef enum korvel_rnr_status {
  KORVEL_RNR_DONE = 0,         ///< the helper has answered
  KORVEL_RNR_FAILED = 1,       ///< another failure; errno tells (EMSGSIZE: a frame is too long)
  KORVEL_RNR_WRONG_USE = 2,    ///< nothing was sent: see each call
  KORVEL_RNR_NO_ENDPOINT = 3,  ///< no helper serves the endpoint; errno: ENOENT or ECONNREFUSED
  KORVEL_RNR_REFUSED = 4,      ///< the helper closed the connection without an answer
  KORVEL_RNR_TIMED_OUT = 5,    ///< errno: EAGAIN while connecting, ETIMEDOUT afterwards
  KORVEL_RNR_NO_FILE = 6       ///< the restore file cannot be read; errno tells
} korvel_rnr_status;

/// The endpoint of the helper that all sessions share. A session's own helper serves this name, an
/// underscore and the session's ID.
#define KORVEL_RNR_SHARED_ENDPOINT "korvel_helper"

/// Room for an endpoint's path with its final zero byte.
#define KORVEL_RNR_PATH_ROOM 105

/// The longest packet that a frame may hold, in bytes.
#define KORVEL_RNR_LONGEST_PACKET 0x100000

/// Asks the helper to bring the session of `restore_file` back after a restart. The helper takes the
/// file away. The path must be absolute and name a session (`korvel_rnr_session_id`), `endpoint` not
/// be empty or hold a slash, `timeout_ms` be above 0: else WRONG_USE. The file must be a regular one
/// that this process can read: else NO_FILE.
korvel_rnr_status korvel_rnr_register(const char* endpoint, const char* restore_file,
                                      int timeout_ms);

/// Withdraws a registered session, named by the restore file as it was registered; the file need not
/// exist any more. WRONG_USE as above.
korvel_rnr_status korvel_rnr_resign(const char* endpoint, const char* restore_file, int timeout_ms);

/// Sees whether the helper answers, and changes nothing: a command that no helper knows.
korvel_rnr_status korvel_rnr_ping(const char* endpoint, int timeout_ms);

/// Sends any packet and takes the reply's packet, at most `room` bytes of it, into `reply` (null with
/// a room of 0 to take none). `*reply_length`, unless null, becomes its whole length.
korvel_rnr_status korvel_rnr_exchange(const char* endpoint, const void* packet,
                                      size_t packet_length, void* reply, size_t room,
                                      size_t* reply_length, int timeout_ms);

/// Writes the request packet of `command` with `argument` (the two as bytes: zero bytes may be
/// inside) and returns its length. Nothing is written when `room` is too small; `packet` may be null
/// then.
size_t korvel_rnr_write_request(void* packet, size_t room, const void* argument,
                                size_t argument_length, const char* command);

/// Writes the ID that `restore_file` names, with its final zero byte, and returns its length: the
/// base name without any ".dat". 0 and the empty text when the name does not end in ".dat", the ID is
/// "", "." or "..", or `room` (in bytes) is too small; no ID needs more room than the path. Both "/"
/// and "\" separate folders, as for the helper.
size_t korvel_rnr_session_id(char* id, size_t room, const char* restore_file);

/// Writes the path of the endpoint's socket, cut where the helper cuts it: after 104 bytes. Returns
/// its length.
size_t korvel_rnr_endpoint_path(char path[KORVEL_RNR_PATH_ROOM], const char* endpoint);

/// One line for a person, without a line end; never null. The text is constant.
const char* korvel_rnr_status_text(korvel_rnr_status status);

#ifdef __cplusplus
}
#endif
