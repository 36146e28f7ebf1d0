#include "ipc/pipe_server.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <typeinfo>
#include <utility>

#include "ipc/connection.h"
#include "ipc/endpoint.h"
#include "ipc/frame.h"
#include "muro/core/exception.h"
#include "muro/sys/time.h"

namespace {

/// The plain transfers of the static functions.
struct direct_transfer {
  int descriptor;
  bool read(unsigned char* bytes, int length) {
    return pipe_server::read_(descriptor, bytes, length);
  }
  bool write(const unsigned char* bytes, int length) {
    return pipe_server::write_(descriptor, bytes, length);
  }
};

/// How long the thread rests after a failure that would only come again.
constexpr int kRest_ms = 100;
constexpr unsigned long long kRest_us = 1000ULL * kRest_ms;

/// How often accept(2) may fail without a rest, for reasons that say nothing about the next call. A
/// client that aborts costs one such failure, a whole queue of them less than this.
constexpr int kFailuresWithoutRest = 32;

/// The failures of accept(2) that say nothing about the next call: no client any more, or a signal.
bool accept_may_be_repeated() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED ||
         errno == EPROTO;
}

}  // namespace

pipe_server::pipe_server(int listening_socket, muro::ipc* endpoint)
    : pipe_server(listening_socket, endpoint, settings{}) {}

pipe_server::pipe_server(int listening_socket, muro::ipc* endpoint, const settings& how)
    : muro::thread(false, "", 0), endpoint_(endpoint), how_(how) {
  if (!muro::open_pipe(stop_pipe_)) throw muro::exception::system_error("pipe_server", "pipe");
  listening_.reset(listening_socket);
  try {
    if (!how.deferred) serve();
  } catch (...) {
    static_cast<void>(listening_.release());
    throw;
  }
}

pipe_server::~pipe_server() {
  ssize_t told;
  do {
    told = ::write(stop_pipe_.write.get(), "X", 1);
  } while (told == -1 && errno == EINTR);
  if (told != 1) std::terminate();
  synchronize();
  stop_pipe_.read.reset();
  stop_pipe_.write.reset();
  listening_.reset();
}

void pipe_server::serve() {
  if (serving_) return;
  detach();
  serving_ = true;
}

bool pipe_server::read_(int descriptor, std::string& out) {
  direct_transfer from{descriptor};
  return ipc_priv::read_frame(from, out);
}

bool pipe_server::write_(int descriptor, const std::string& body) {
  direct_transfer to{descriptor};
  return ipc_priv::write_frame(to, body);
}

bool pipe_server::read_(int descriptor, unsigned char* bytes, int length) {
  while (length > 0) {
    const ssize_t got = ::read(descriptor, bytes, static_cast<std::size_t>(length));
    if (got <= 0) return false;
    bytes += got;
    length -= static_cast<int>(got);
  }
  return length == 0;
}

bool pipe_server::write_(int descriptor, const unsigned char* bytes, int length) {
  while (length > 0) {
    const ssize_t written = ::write(descriptor, bytes, static_cast<std::size_t>(length));
    if (written <= 0) return false;
    bytes += written;
    length -= static_cast<int>(written);
  }
  return length == 0;
}

void pipe_server::run() {
  int non_blocking = 1;
  ::ioctl(listening_.get(), FIONBIO, &non_blocking);
  while (wait_for_client()) {
    muro::unique_fd accepted = accept_client();
    if (accepted.is_open()) serve_connection(std::move(accepted));
  }
}

/// Waits without limit, on purpose: there is nothing else to do. False when the thread is to stop.
bool pipe_server::wait_for_client() {
  pollfd entries[2] = {{listening_.get(), POLLIN, 0}, {stop_pipe_.read.get(), POLLIN, 0}};
  while (::poll(entries, 2, -1) < 1) {
    // Any other failure would come again at once and keep a processor busy.
    if (errno != EINTR) muro::pause_us(kRest_us);
  }
  if (entries[1].revents == 0) return true;
  char stop;
  static_cast<void>(!::read(stop_pipe_.read.get(), &stop, 1));
  return false;
}

/// The next client, or none. A client that cannot be taken for want of descriptors or memory stays
/// in the queue and would wake the thread again at once, so the thread rests a while first; so it
/// does when nothing but failures comes, whatever they are.
muro::unique_fd pipe_server::accept_client() {
  muro::unique_fd accepted(how_.accept(listening_.get(), nullptr, nullptr));
  if (accepted.is_open()) {
    failures_in_a_row_ = 0;
    muro::set_close_on_exec(accepted.get());
  } else if (!accept_may_be_repeated() || ++failures_in_a_row_ > kFailuresWithoutRest) {
    stop_within(kRest_ms);
  }
  return accepted;
}

void pipe_server::serve_connection(muro::unique_fd accepted) {
  ipc_priv::connection client(std::move(accepted), stop_pipe_.read.get(), how_.frame_limit_ms);
  client.begin_transfer();
  if (!ipc_priv::read_frame(client, request_)) return;
  if (!wait_for_handler()) return;
  // Deliberate: what the handler throws is not caught here and ends the process; handlers catch
  // their own.
  const std::string reply = endpoint_->handle_connection(client.descriptor(), request_);
  client.begin_transfer();
  // Deliberate: a reply that cannot be sent, or is too long to be, is dropped; the client sees the
  // connection close.
  ipc_priv::write_frame(client, reply);
}

/// An endpoint that serves from its base's constructor on is, for a moment at both ends of its
/// life, only that base, and a request would meet a pure virtual function. At its birth the request
/// waits until the derived class takes over; at its death it is dropped when the stop byte comes.
/// This narrows the gap for handlers that do not defer serving (see ipc/endpoint.h), it cannot
/// close it.
bool pipe_server::wait_for_handler() {
  for (;;) {
    const muro::ipc& endpoint = *endpoint_;
    if (typeid(endpoint) != typeid(muro::ipc)) return true;
    if (stop_within(1)) return false;
  }
}

/// Whether the thread is told to stop now or within the time; the stop byte stays for the loop.
bool pipe_server::stop_within(int wait_ms) {
  pollfd stop{stop_pipe_.read.get(), POLLIN, 0};
  const muro::time_limit limit(wait_ms);
  int ready;
  while ((ready = ::poll(&stop, 1, wait_ms)) < 0 && errno == EINTR)
    wait_ms = static_cast<int>(limit.left_ms());
  return ready > 0;
}
