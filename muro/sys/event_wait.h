#pragma once

/// Waiting for one descriptor.

namespace muro {

/// Waits until `descriptor` is ready for what is asked, or for `timeout_s` seconds: negative waits
/// for ever, 0 only looks. A non-null `readable` or `writable` asks for that event and receives its
/// outcome; a non-null `error` only receives. With all three null only the time-out, or a hang-up
/// or error of the descriptor, ends the wait.
///
///     readable   data or end of input can be read, or the peer has closed (POLLIN, POLLHUP)
///     writable   a write would not block (POLLOUT)
///     error      POLLERR, or the descriptor is not open (POLLNVAL)
///
/// All three are false after a time-out. The seconds become milliseconds in 32 bits, so the longest
/// finite wait is 2147483 s. A call that a signal interrupts is repeated with what is left of the
/// time-out by `wait_clock_us`, so neither signals nor a wall clock that is set make it longer or
/// shorter. Throws `muro::exception` ":Error from 'poll' (called in 'wait_for_event'): ..." on any
/// other failure; the three outcomes are then unchanged. See poll(2). Any thread.
void wait_for_event(int descriptor, bool* readable, bool* writable, bool* error, long timeout_s);

}  // namespace muro
