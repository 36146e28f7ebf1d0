#pragma once

/// The asking side of the helper's local endpoint: one connection, one request frame, one reply
/// frame, all within one time limit.
///
///     client                                helper
///       connect /tmp/NAME.ipc  ------------>  (serves one connection at a time)
///       length (4 bytes) + request packet --->
///       <---------- length (4 bytes) + reply packet, always empty
///
/// A helper that refuses a frame closes the connection without a reply. The reply tells nothing but
/// its arrival: what became of the request stands in the helper's log.

#include <stdexcept>
#include <string>

namespace rnrctl {

/// What the tool's process ends with; scripts rely on the numbers.
enum class exit_status : int {
  done = 0,
  failed = 1,
  wrong_use = 2,
  no_endpoint = 3,
  refused = 4,
  timed_out = 5,
  no_file = 6,
  not_done = 7,
};

/// A request that got no answer: one line for the person, a status for the script.
class failure : public std::runtime_error {
 public:
  failure(exit_status status, const std::string& line)
      : std::runtime_error(line), status_(status) {}
  exit_status status() const { return status_; }

 private:
  exit_status status_;
};

/// The request packet of `command` with `argument`. Fields are taken off the packet's end, so the
/// argument is pushed first and the command last.
std::string make_request(const std::string& command, const std::string& argument);

/// Sends `packet` to the endpoint `name` and gives the reply packet. Throws `failure`, never with
/// `wrong_use` or `no_file`, when there is none within `limit_ms` (above 0). Connecting counts
/// too: a helper that is busy with a long queue makes `connect` wait.
/// The client library's calls in this tool's words; the statuses are the same numbers. Any thread.
std::string exchange(const std::string& name, const std::string& packet, long long limit_ms);

}  // namespace rnrctl
