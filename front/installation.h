#pragma once

/// The three launchd jobs through which the helper survives a restart.

#include "platform/platform.h"

using platform::nil_string;

extern const char* const kVeskRNRServiceName;  // "com.norvane.korvel.helper"
extern const char* const kVeskRNRAgentName;    // "com.norvane.korvel.restart"

bool installServiceNoInstant();
bool installService(const nil_string& exe_path, const nil_string& restore_file,
                    const nil_string& restore_id);
bool installAgent(const nil_string& restore_id, const nil_string& exe_path,
                  const nil_string& restore_file);
bool agentInstalled(const nil_string& restore_id);
bool uninstallAgent(const nil_string& restore_id);
bool uninstallService(const nil_string& restore_id);
void uninstallServiceRemove(const nil_string& restore_id);
