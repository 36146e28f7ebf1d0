#pragma once

/// Waiting for one descriptor.

namespace muro {

/// Polls `descriptor` for at most `timeout_s` seconds (negative: for ever; 0: only looks). A
/// non-null `readable` or `writable` asks for that event and receives its outcome; a non-null
/// `error` only receives. Retries EINTR; throws ("wait_for_event", "poll") on any other failure.
void wait_for_event(int descriptor, bool* readable, bool* writable, bool* error, long timeout_s);

}  // namespace muro
