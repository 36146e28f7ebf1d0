#define _XOPEN_SOURCE 700
#define _DARWIN_C_SOURCE  // SO_NOSIGPIPE

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/clock.h"
#include "client/korvel_rnr.h"

#ifndef MSG_NOSIGNAL
#define MSG_NOSIGNAL 0  // the socket's own option serves there
#endif

// One connection and the time at which all of it has to be over.
typedef struct conversation {
  int descriptor;
  long long end_ms;
} conversation;

static int left_ms(const conversation* with) {
  const long long left = with->end_ms - korvel_rnr_clock_ms();
  return left < 0 ? 0 : left > INT_MAX ? INT_MAX : (int)left;
}

static korvel_rnr_status status_of_connect(int error) {
  switch (error) {
    case ENOENT:
    case ECONNREFUSED:
      return KORVEL_RNR_NO_ENDPOINT;
    case EAGAIN:
      return KORVEL_RNR_TIMED_OUT;
    default:
      return KORVEL_RNR_FAILED;
  }
}

// Linux lets a connecting client wait for room in the helper's queue as long as it may wait for
// sending; macOS refuses at once when the queue is full, and needs no limit.
static void limit_connect(const conversation* with) {
  const int left = left_ms(with) > 0 ? left_ms(with) : 1;
  const struct timeval limit = {left / 1000, left % 1000 * 1000};
  setsockopt(with->descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

static void prepare_socket(const conversation* with) {
  fcntl(with->descriptor, F_SETFD, FD_CLOEXEC);
#ifdef SO_NOSIGPIPE
  const int on = 1;
  setsockopt(with->descriptor, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  limit_connect(with);
}

static korvel_rnr_status connect_to(conversation* with, const char* endpoint) {
  char path[KORVEL_RNR_PATH_ROOM];
  struct sockaddr_un address;
  const size_t length = korvel_rnr_endpoint_path(path, endpoint);
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, length);
  with->descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  if (with->descriptor == -1) return KORVEL_RNR_FAILED;
  prepare_socket(with);
  const socklen_t size = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + length);
  if (connect(with->descriptor, (const struct sockaddr*)&address, size) != 0)
    return status_of_connect(errno);
  fcntl(with->descriptor, F_SETFL, fcntl(with->descriptor, F_GETFL) | O_NONBLOCK);
  return KORVEL_RNR_DONE;
}

static korvel_rnr_status wait_for(const conversation* with, short events) {
  struct pollfd entry = {with->descriptor, events, 0};
  int ready;
  do {
    ready = poll(&entry, 1, left_ms(with));
  } while (ready == -1 && errno == EINTR);
  if (ready > 0) return KORVEL_RNR_DONE;
  if (ready == 0) errno = ETIMEDOUT;
  return ready == 0 ? KORVEL_RNR_TIMED_OUT : KORVEL_RNR_FAILED;
}

// What a failed transfer means; DONE: it is worth another try.
static korvel_rnr_status status_of_transfer(int error) {
  switch (error) {
    case EAGAIN:
    case EINTR:
      return KORVEL_RNR_DONE;
    case EPIPE:
    case ECONNRESET:
      return KORVEL_RNR_REFUSED;
    default:
      return KORVEL_RNR_FAILED;
  }
}

static korvel_rnr_status send_all(const conversation* with, const void* bytes, size_t length) {
  const char* from = bytes;
  while (length != 0) {
    korvel_rnr_status status = wait_for(with, POLLOUT);
    if (status != KORVEL_RNR_DONE) return status;
    const ssize_t sent = send(with->descriptor, from, length, MSG_NOSIGNAL);
    if (sent < 0) {
      status = status_of_transfer(errno);
      if (status != KORVEL_RNR_DONE) return status;
      continue;
    }
    from += sent;
    length -= (size_t)sent;
  }
  return KORVEL_RNR_DONE;
}

static korvel_rnr_status receive_all(const conversation* with, void* bytes, size_t length) {
  char* to = bytes;
  while (length != 0) {
    korvel_rnr_status status = wait_for(with, POLLIN);
    if (status != KORVEL_RNR_DONE) return status;
    const ssize_t got = recv(with->descriptor, to, length, 0);
    if (got == 0) return KORVEL_RNR_REFUSED;
    if (got < 0) {
      status = status_of_transfer(errno);
      if (status != KORVEL_RNR_DONE) return status;
      continue;
    }
    to += got;
    length -= (size_t)got;
  }
  return KORVEL_RNR_DONE;
}

static korvel_rnr_status too_long(void) {
  errno = EMSGSIZE;
  return KORVEL_RNR_FAILED;
}

static korvel_rnr_status send_frame(const conversation* with, const void* packet, size_t length) {
  unsigned char head[4];
  if (length > KORVEL_RNR_LONGEST_PACKET) return too_long();
  for (int i = 0; i < 4; ++i) head[i] = (unsigned char)(length >> (8 * i) & 0xff);
  const korvel_rnr_status status = send_all(with, head, sizeof head);
  return status == KORVEL_RNR_DONE ? send_all(with, packet, length) : status;
}

static korvel_rnr_status receive_length(const conversation* with, size_t* length) {
  unsigned char head[4];
  const korvel_rnr_status status = receive_all(with, head, sizeof head);
  if (status != KORVEL_RNR_DONE) return status;
  *length = 0;
  for (int i = 3; i >= 0; --i) *length = *length << 8 | head[i];
  return *length > KORVEL_RNR_LONGEST_PACKET ? too_long() : KORVEL_RNR_DONE;
}

// The whole reply is taken off the connection, whatever the caller has room for.
static korvel_rnr_status receive_frame(const conversation* with, char* reply, size_t room,
                                       size_t* reply_length) {
  size_t length = 0;
  korvel_rnr_status status = receive_length(with, &length);
  const size_t kept = length < room ? length : room;
  if (status == KORVEL_RNR_DONE && kept != 0) status = receive_all(with, reply, kept);
  char rest[4096];
  for (size_t left = length - kept; status == KORVEL_RNR_DONE && left != 0;) {
    const size_t piece = left < sizeof rest ? left : sizeof rest;
    status = receive_all(with, rest, piece);
    left -= piece;
  }
  if (status == KORVEL_RNR_DONE && reply_length != NULL) *reply_length = length;
  return status;
}

static int names_endpoint(const char* endpoint) {
  return endpoint != NULL && *endpoint != '\0' && strchr(endpoint, '/') == NULL;
}

korvel_rnr_status korvel_rnr_exchange(const char* endpoint, const void* packet,
                                      size_t packet_length, void* reply, size_t room,
                                      size_t* reply_length, int timeout_ms) {
  if (!names_endpoint(endpoint) || timeout_ms <= 0) return KORVEL_RNR_WRONG_USE;
  if (packet_length > KORVEL_RNR_LONGEST_PACKET) return too_long();
  conversation with = {-1, korvel_rnr_clock_ms() + timeout_ms};
  korvel_rnr_status status = connect_to(&with, endpoint);
  if (status == KORVEL_RNR_DONE) status = send_frame(&with, packet, packet_length);
  if (status == KORVEL_RNR_DONE) status = receive_frame(&with, reply, room, reply_length);
  const int error = errno;
  if (with.descriptor != -1) close(with.descriptor);
  errno = error;
  return status;
}

static korvel_rnr_status ask(const char* endpoint, const char* argument, const char* command,
                             int timeout_ms) {
  const size_t argument_length = strlen(argument);
  const size_t length = korvel_rnr_write_request(NULL, 0, argument, argument_length, command);
  if (length > KORVEL_RNR_LONGEST_PACKET) return too_long();
  void* const packet = malloc(length);
  if (packet == NULL) return KORVEL_RNR_FAILED;
  korvel_rnr_write_request(packet, length, argument, argument_length, command);
  const korvel_rnr_status status =
      korvel_rnr_exchange(endpoint, packet, length, NULL, 0, NULL, timeout_ms);
  const int error = errno;
  free(packet);
  errno = error;
  return status;
}

static int names_session(const char* restore_file) {
  if (restore_file == NULL || restore_file[0] != '/') return 0;
  const size_t room = strlen(restore_file) + 1;
  char* const id = malloc(room);
  const int named = id != NULL && korvel_rnr_session_id(id, room, restore_file) != 0;
  free(id);
  return named;
}

// Opened, since only that tells whether this process may read it; without blocking at a pipe.
static korvel_rnr_status check_readable(const char* path) {
  const int file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file == -1) return KORVEL_RNR_NO_FILE;
  struct stat about;
  int error = fstat(file, &about) != 0 ? errno : S_ISREG(about.st_mode) ? 0 : EINVAL;
  close(file);
  errno = error;
  return error == 0 ? KORVEL_RNR_DONE : KORVEL_RNR_NO_FILE;
}

korvel_rnr_status korvel_rnr_register(const char* endpoint, const char* restore_file,
                                      int timeout_ms) {
  if (!names_session(restore_file)) return KORVEL_RNR_WRONG_USE;
  if (!names_endpoint(endpoint) || timeout_ms <= 0) return KORVEL_RNR_WRONG_USE;
  const korvel_rnr_status status = check_readable(restore_file);
  return status == KORVEL_RNR_DONE ? ask(endpoint, restore_file, "rnr_register", timeout_ms)
                                   : status;
}

korvel_rnr_status korvel_rnr_resign(const char* endpoint, const char* restore_file,
                                    int timeout_ms) {
  if (!names_session(restore_file)) return KORVEL_RNR_WRONG_USE;
  return ask(endpoint, restore_file, "rnr_resign", timeout_ms);
}

korvel_rnr_status korvel_rnr_ping(const char* endpoint, int timeout_ms) {
  return ask(endpoint, "", "rnr_ping", timeout_ms);
}
