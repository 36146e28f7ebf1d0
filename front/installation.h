#pragma once

/// The three launchd jobs through which the helper survives a restart.
///
///     job                 kind     label                                 starts
///     shared daemon       daemon   com.norvane.korvel.helper             the helper, no options
///     per-session daemon  daemon   com.norvane.korvel.helper.ID          the session's helper copy
///     restart agent       agent    com.norvane.korvel.restart.ID         the client
///
/// Each launchd operation is followed by a pause of 200 ms (`muro::pause_us`). After it the one
/// test of success is whether the job file stands (or has gone), whatever launchd reported
/// meanwhile.
///
/// An ID that does not name a session (`namesSession`) makes each function here fail: it gives
/// false, asks launchd nothing and removes nothing. Nil never crashes. The functions keep no state;
/// they must not run at once for one session. An exception that is not said to be caught reaches
/// the caller (before 10.10 the console's owner may be unknown: ":Error in 'get_console'").

#include <string>
#include <vector>

#include "platform/platform.h"

using platform::nil_string;

extern const char* const kVeskRNRServiceName;  ///< "com.norvane.korvel.helper"
extern const char* const kVeskRNRAgentName;    ///< "com.norvane.korvel.restart"

/// The program and arguments of a session's daemon, and of its restart agent: they start the helper's
/// copy, and the client.
std::vector<std::string> sessionDaemonCommand(const std::string& helper, const std::string& bundle,
                                              const std::string& restore_file);
std::vector<std::string> clientCommand(const std::string& exe_path,
                                       const std::string& restore_file);

/// Installs the shared daemon, which runs this executable from where it is. True when its job file
/// exists afterwards. Throws nothing: logs "Failed to install daemon: %1%" with the exception's
/// text or "Failed to install daemon: unknown error".
bool installServiceNoInstant();

/// Moves restore file, helper and a copy of the client bundle at `exe_path` into the session folder
/// and installs the per-session daemon from there. True when its job file exists afterwards.
/// The order counts: the restore file goes first, and the helper has moved its own executable
/// before the bundle is copied, so a bundle that cannot be copied leaves the helper moved.
/// Logs "Insufficient arguments, exiting..." (nothing is touched then), "Failed to move restore
/// file" or "Failed to install daemon: %1%" for a `muro::exception`; other exceptions pass on.
bool installService(const nil_string& exe_path, const nil_string& restore_file,
                    const nil_string& restore_id);

/// Installs the restart agent, which starts the client executable `exe_path` with `restore_file`,
/// and loads it for every user who is logged in. True when `agentInstalled` afterwards.
bool installAgent(const nil_string& restore_id, const nil_string& exe_path,
                  const nil_string& restore_file);

/// Whether the restart agent's job file exists.
bool agentInstalled(const nil_string& restore_id);

/// Stops the restart agent everywhere and removes its job file. True when that is gone afterwards,
/// also when it never existed.
bool uninstallAgent(const nil_string& restore_id);

/// Stops the per-session daemon and removes its job file. True when that is gone afterwards.
bool uninstallService(const nil_string& restore_id);

/// Removes all of a session but its agent: job file, session folder, daemon, in this order. May
/// end the calling process, when launchd stops the daemon that it is. Throws nothing; a failing
/// step is logged as "Failed to remove launchd daemon plist: %1%" with the system's error text and
/// ends the removal. Waits for the log before the folder goes: the log's file may lie in it.
void uninstallServiceRemove(const nil_string& restore_id);
