#pragma once

/// What the helper would do for a request, on a Mac of any release with any users logged in; from the
/// helper's own texts and command lines, and without touching anything.

#include <string>
#include <vector>

#include "osx/launchctl_words.h"
#include "osx/os_version.h"

namespace rnrctl {

/// A user who is logged in on the Mac that is planned for.
struct planned_user {
  std::string name;
  unsigned uid = 0;
  unsigned login_pid = 0;
};

struct planned_mac {
  muro::os_release release;
  std::vector<planned_user> users;
  /// The user at the console, if the helper has the display; a helper that launchd started as a
  /// daemon has none, and treats all users alike.
  std::string console;
  std::string helper = "/Library/PrivilegedHelperTools/korvel_helper";
};

/// One step, in the order in which the helper takes them.
struct planned_step {
  enum class kind {
    folder,    ///< `path` is made, with `mode`
    move,      ///< `from` becomes `path`
    copy,      ///< `from` is copied to `path`, with `mode`, root and admin
    write,     ///< `path` is written with `text`, mode 0644, 0:0
    run,       ///< `words` are run
    user_job,  ///< `words` are run by the launchd of user `uid`, through its socket
    pause,     ///< `pause_ms`
    remove     ///< `path` and all in it goes
  };
  kind what;
  std::string path;
  std::string from;
  std::string mode;
  std::string text;
  osx::command_line words;
  unsigned uid = 0;
  int pause_ms = 0;
};

/// `ID.dat` is registered with the shared helper.
std::vector<planned_step> plan_register(const planned_mac& mac, const std::string& restore_file);
/// The same session resigns.
std::vector<planned_step> plan_resign(const planned_mac& mac, const std::string& restore_file);
/// The shared daemon is installed.
std::vector<planned_step> plan_install(const planned_mac& mac);
/// A session gets a daemon of its own, from the client's bundle.
std::vector<planned_step> plan_install_session(const planned_mac& mac, const std::string& bundle,
                                               const std::string& restore_file);
/// Such a session's daemon finds its restore file gone.
std::vector<planned_step> plan_remove_session(const planned_mac& mac,
                                              const std::string& restore_file);

/// The step in one line, and the text of a file below it.
std::string line_of(const planned_step& step);

}  // namespace rnrctl
