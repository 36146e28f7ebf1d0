#pragma once

/// All that can be seen of the helper on this Mac, joined by session: files, launchd's view, and who
/// answers. Looking changes nothing.
///
/// A session is known from its folder, its job files, launchd's labels or its socket, whichever is
/// left of it; one whose ID is empty stands for the shared helper. What cannot be learned (launchd's
/// tool does not answer, or this process is not root) is told as not known instead of guessed.

#include <sys/types.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace rnrctl {

/// What stands at a path, itself: no link is followed.
struct file_facts {
  std::string path;
  bool exists = false;
  mode_t mode = 0;  ///< type and permission bits, as st_mode
  uid_t owner = 0;
  gid_t group = 0;
  bool is_regular() const;
  bool is_folder() const;
  bool is_socket() const;
};
file_facts facts_of(const std::string& path);

/// All of a file; empty where it cannot be read.
std::string file_content(const std::string& path);

enum class job_kind { daemon, agent };

/// One launchd job: what its file says, and what launchd says.
struct job_facts {
  explicit job_facts(job_kind what) : kind(what) {}
  job_kind kind;
  std::string label;  ///< the one that belongs to the session
  file_facts file;
  bool as_written = false;           ///< the bytes are those that the helper writes
  std::string label_inside;          ///< the label in the file; empty: none was found
  std::vector<std::string> command;  ///< program and arguments in the file
  bool program_exists = false;
  std::set<std::string> loaded_in;    ///< launchd's domains: "system", "gui/501"
  std::set<std::string> disabled_in;  ///< domains whose override forbids the job

  /// File there, mode, owner and name as launchd and the helper want them, program there.
  bool is_right() const;
};

/// Reads a job file as the helper writes it: fills `label_inside`, `command` and `as_written`.
void read_job_text(const std::string& text, job_facts& job);

enum class endpoint_state {
  none,  ///< no socket
  answering,
  dead,       ///< a socket that nobody serves
  silent,     ///< somebody serves it and does not answer in time
  unreadable  ///< it cannot be told, or no socket stands there
};

struct session_facts {
  std::string id;  ///< empty: the shared helper
  file_facts folder;
  file_facts restore_file;
  file_facts helper_copy;
  file_facts client_copy;  ///< the bundle in the session's folder; the first when there are several
  job_facts daemon{job_kind::daemon};
  job_facts agent{job_kind::agent};
  file_facts socket;
  endpoint_state endpoint = endpoint_state::none;
  bool has_process = false;  ///< a process was started with a path in the session's folder

  /// Nothing of it is left on the disk, in launchd or as a socket.
  bool is_gone() const;
  /// Its client runs, in whatever launchd domain, or its own helper does; and it is not over.
  bool is_live() const;
  /// It will come back after a restart: a restore file, and an agent that launchd can start.
  bool is_resumable() const;
};

/// A session's line in one word: "resumable", "half installed", "orphaned", "loaded without a file".
std::string state_of(const session_facts& session);

struct user_session {
  unsigned pid;      ///< of the console login
  std::string name;  ///< of the user
  std::optional<uid_t> uid;
};

/// From the login records of the console.
std::vector<user_session> users_logged_in();

struct survey_result {
  session_facts shared;
  std::vector<session_facts> sessions;  ///< by ID
  std::vector<user_session> users;      ///< who is logged in
  file_facts client;                    ///< the installed client's executable
  bool launchd_known = false;           ///< false: `loaded_in` and `disabled_in` tell nothing
  std::vector<std::string> notes;       ///< what could not be learned, one line each
};

struct survey_options {
  std::string only_id;  ///< leave all other sessions out; empty: look at all
  bool all = true;      ///< false: only `only_id`
  bool ask_launchd = true;
  int endpoint_limit_ms = 1000;  ///< for each endpoint's answer
};

survey_result look(const survey_options& options = {});

/// All of it as one JSON object (docs: rnrctl(8)).
std::string status_json(const survey_result& all);

/// Owner, group and mode as people write them: "0644 0:0"; "-" for what does not exist.
std::string mode_text(const file_facts& facts);

/// The endpoint's name of a session.
std::string endpoint_of(const std::string& id);

}  // namespace rnrctl
