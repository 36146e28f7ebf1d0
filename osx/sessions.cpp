#include "osx/sessions.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstring>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/time.h"
#include "osx/os_version.h"
#include "platform/platform.h"

namespace {

constexpr int kConsoleAttempts = 101;
constexpr unsigned long long kConsolePause_us = 100 * 1000;

std::vector<std::string> launchd_folders() {
  try {
    std::vector<std::string> found;
    muro::find_files(found, "/tmp/launchd-*");
    return found;
  } catch (...) {
    return {};
  }
}

// The text fields of a login record fill their whole array when they are long enough; only shorter
// ones are terminated.
template <std::size_t Size>
std::string field_text(const char (&field)[Size]) {
  return {field, ::strnlen(field, Size)};
}

/// Rewinds the process's cursor over the login records and closes them, also when the reading breaks
/// off: the next one would else begin behind the records that this one has seen.
class rewound_records {
 public:
  rewound_records() = default;
  ~rewound_records() {
    const muro::errno_guard keep;
    ::setutxent();
    ::endutxent();
  }
  rewound_records(const rewound_records&) = delete;
  rewound_records& operator=(const rewound_records&) = delete;
};

bool is_console_login(const utmpx& record) {
  return record.ut_type == USER_PROCESS && field_text(record.ut_line) == "console";
}

}  // namespace

session_map get_sessions() {
  const muro::fmt_dbg log("get_sessions");
  if (osx::is_os_version_or_later(10, 10)) return get_sessions_v2();
  session_map sessions;
  for (const std::string& path : launchd_folders()) {
    struct stat info;
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) sessions[info.st_uid] = path;
  }
  return sessions;
}

session_map get_sessions_v2() {
  const muro::fmt_dbg log("get_sessions_v2");
  session_map sessions;
  // Deliberate: reading starts where the process's cursor stands; it is rewound afterwards.
  const rewound_records afterwards;
  while (const utmpx* record = ::getutxent()) {
    if (!is_console_login(*record)) continue;
    sessions[static_cast<unsigned int>(record->ut_pid)] = field_text(record->ut_user);
  }
  return sessions;
}

namespace osx {

unsigned int get_console() {
  const muro::fmt_dbg log("get_console");
  if (::geteuid() != 0) {
    log.fmt_verbose("need to be admin");
    throw muro::exception::function("get_console");
  }
  for (int attempt = 0; attempt < kConsoleAttempts; ++attempt) {
    struct stat info;
    if (::stat("/dev/console", &info) == 0) {
      log.fmt_verbose("console is %1%", info.st_uid);
      return info.st_uid;
    }
    muro::pause_us(kConsolePause_us);
  }
  throw muro::exception::function("get_console");
}

bool attached_to_console() {
  const muro::fmt_dbg log("attached_to_console");
  const platform::security_session session = platform::calling_security_session();
  const bool has_display = (session.attributes & platform::kSessionHasGraphicAccess) != 0;
  log.fmt_verbose("session %1% - %2% %3%", session.id, session.attributes, has_display);
  return has_display;
}

}  // namespace osx
