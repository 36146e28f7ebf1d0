#pragma once

/// The roles of the executable: which one the start options ask for, and running it.

#include "platform/platform.h"

using platform::nil_string;

struct start_options {
  bool test = false;
  bool installed = false;
  nil_string exe_path;
  nil_string restore_file;
  bool run_install = false;
};

enum class role {
  self_test,
  install_shared_daemon,
  remove_session,
  install_session_daemon,
  serve_session,
  refuse_restore_file,
  serve_shared,
};

/// Pure: the first matching row of the dispatch table.
role choose_role(const start_options& options, const nil_string& restore_id,
                 bool restore_file_exists);
