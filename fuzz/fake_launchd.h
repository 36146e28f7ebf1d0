#pragma once

/// A user's launchd as system calls show it. While there is one, the calls that the helper makes on
/// its way to launchd's socket end here, since fake_launchd.cpp defines them in the target itself,
/// where the linker finds them before the C library's; all other calls go to the system.

#include <sys/socket.h>

#include <string>
#include <string_view>
#include <vector>

namespace fake {

/// What a receive meets behind the last delivery, other than an errno.
inline constexpr int kCloses = 0;
inline constexpr int kStaysSilent = -1;

inline constexpr long long kPerInterruption_ms = 700;

struct launchd {
  // What it, and the system, does. An error is an errno, or 0.
  int user_error = 0;  ///< of the change to the user
  int socket_error = 0;
  int connect_error = 0;
  int send_error = 0;
  std::vector<std::string_view> deliveries;  ///< none is empty; one for a receive, at most
  int end = kCloses;
  unsigned receive_with_cut_control = 0xff;  ///< the number of that receive, from 0
  unsigned interruptions = 0;                ///< bit i: wait number i is ended by a signal

  bool interrupts(unsigned wait) const { return wait < 32 && (interruptions >> wait & 1) != 0; }

  // What it has seen.
  std::string path;
  unsigned user_at_connect = 0;
  std::string sent;
  unsigned receives = 0;
  unsigned waits = 0;
  long long now_ms = 0;  ///< time passes in waits alone

  // The state of the process.
  unsigned user = 0;
  bool is_open = false;
  bool blocks = true;
  bool may_receive = false;  ///< a wait has said so
};

/// The one in force; null sends every call to the system.
extern launchd* peer;

/// The clock of the waits, for `muro::x_relative_time`.
long long now_ms();

}  // namespace fake
