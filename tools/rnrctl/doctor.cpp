#include "tools/rnrctl/doctor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "front/session_folder.h"
#include "ipc/endpoint.h"
#include "muro/core/fmt.h"
#include "muro/sys/files.h"
#include "osx/os_version.h"
#include "tools/rnrctl/launchd_view.h"

namespace rnrctl {
namespace {

constexpr const char* kLogFolder = "/Library/PrivilegedHelperTools";
constexpr mode_t kWritableByOthers = 0022;

using findings = std::vector<finding>;
using commands = std::vector<std::string>;

// A word for the shell, quoted where it has to be.
std::string quoted(const std::string& word) {
  constexpr const char* kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:@%+=,";
  if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) return word;
  std::string text = "'";
  for (const char c : word) text += c == '\'' ? "'\\''" : std::string(1, c);
  return text + "'";
}

commands reset(const std::string& id) {
  return {"rnrctl sessions reset " + quoted(id) + " --yes"};
}

// Resets a session's jobs, or installs the shared daemon anew.
commands renew(const std::string& id) {
  return id.empty() ? commands{"/Library/PrivilegedHelperTools/korvel_helper -runInstall 1"}
                    : reset(id);
}

bool may_have_print_disabled() {
  return osx::is_os_version_or_later(10, 10);
}

// The file of one job

void look_at_file(const job_facts& job, const std::string& id, findings& out) {
  const file_facts& file = job.file;
  const std::string path = quoted(file.path);
  if (!file.exists) return;
  if (!file.is_regular()) {
    out.push_back({"job-file-no-file",
                   severity::error,
                   id,
                   file.path + " is no regular file",
                   "launchd starts nothing from it",
                   {"rm -rf " + path}});
    return;
  }
  if ((file.mode & 07777) != 0644)
    out.push_back({"job-file-mode",
                   severity::error,
                   id,
                   file.path + " has mode " + mode_text(file).substr(0, 4),
                   "launchd refuses job files with another mode than 0644",
                   {"chmod 0644 " + path}});
  if (file.owner != 0 || file.group != 0)
    out.push_back({"job-file-owner",
                   severity::error,
                   id,
                   file.path + " belongs to " + mode_text(file).substr(5),
                   "launchd refuses job files that do not belong to root and wheel",
                   {"chown 0:0 " + path}});
  if (job.label_inside != job.label)
    out.push_back({"job-label-differs", severity::error, id,
                   file.path + " holds the label \"" + job.label_inside + "\"",
                   "the helper cannot stop or remove what launchd knows by another name",
                   id.empty() ? renew(id) : commands{"rm " + path}});
  else if (!job.as_written)
    out.push_back({"job-file-edited", severity::warning, id,
                   file.path + " is not what the helper writes",
                   "somebody has changed it, or another version wrote it", renew(id)});
  if (!job.command.empty() && !job.program_exists)
    out.push_back({"job-program-missing", severity::error, id,
                   file.path + " starts " + job.command.front() + ", which is not there",
                   "launchd cannot start the job",
                   id.empty() ? commands{"install the helper again"} : reset(id)});
}

// What launchd makes of it

std::string service(const std::string& domain, const job_facts& job) {
  return quoted(domain + "/" + job.label);
}

void look_for_override(const job_facts& job, const std::string& id, findings& out) {
  for (const std::string& domain : job.disabled_in) {
    if (!job.file.exists) continue;
    out.push_back({"job-disabled",
                   severity::error,
                   id,
                   "launchd has " + job.label + " disabled in " + domain,
                   "an override of launchd's own keeps the job from being started, whatever its "
                   "file says",
                   {may_have_print_disabled() ? "launchctl enable " + service(domain, job)
                                              : "launchctl load -w " + quoted(job.file.path)}});
  }
}

std::string domain_of(const user_session& user) {
  return muro::stringify("gui/", user.uid.value_or(0));
}

commands removal_of(const job_facts& job, const std::string& domain,
                    const std::vector<user_session>& users) {
  if (domain == "system") return {"launchctl remove " + quoted(job.label)};
  for (const user_session& user : users)
    if (user.uid && domain == domain_of(user))
      return {muro::stringify("launchctl bsexec ", user.pid, " sudo -u ", user.name,
                              " launchctl remove ", quoted(job.label))};
  return {"log out and in again"};
}

// An agent waits for the client's user: it has to be in the domain of everyone who is logged in.
void look_for_users_without(const job_facts& agent, const std::string& id, const survey_result& all,
                            findings& out) {
  if (!agent.is_right()) return;
  for (const user_session& user : all.users) {
    const std::string domain = domain_of(user);
    if (!user.uid || agent.loaded_in.contains(domain) || agent.disabled_in.contains(domain))
      continue;
    out.push_back(
        {"agent-not-loaded",
         severity::warning,
         id,
         agent.label + " is not loaded in " + domain + ", where " + user.name + " is logged in",
         "the client does not come back there before the next log-in",
         {muro::stringify("launchctl bsexec ", user.pid, " sudo -u ", quoted(user.name),
                          " launchctl load -w ", quoted(agent.file.path))}});
  }
}

void look_at_loading(const job_facts& job, const std::string& id, const survey_result& all,
                     findings& out) {
  if (!all.launchd_known) return;
  look_for_override(job, id, out);
  if (job.kind == job_kind::agent) look_for_users_without(job, id, all, out);
  if (!job.file.exists) {
    for (const std::string& domain : job.loaded_in)
      out.push_back({"job-loaded-without-file", severity::warning, id,
                     job.label + " is loaded in " + domain + " and has no job file",
                     "it runs until the next restart, and nothing of it is left on the disk",
                     removal_of(job, domain, all.users)});
    return;
  }
  if (job.kind == job_kind::daemon && job.is_right() && job.loaded_in.empty() &&
      job.disabled_in.empty())
    out.push_back({"job-not-loaded",
                   severity::warning,
                   id,
                   job.label + " is not loaded",
                   "launchd will not start it before the next restart",
                   {"launchctl load -w " + quoted(job.file.path)}});
}

// One session

void look_at_endpoint(const session_facts& session, findings& out) {
  const std::string& path = session.socket.path;
  const commands remove = {"rm -rf " + quoted(path)};
  if (session.endpoint == endpoint_state::dead)
    out.push_back({"dead-socket", severity::warning, session.id, path + " is served by nobody",
                   "a helper that ended has left it; clients get no connection", remove});
  if (session.endpoint == endpoint_state::unreadable)
    out.push_back({"endpoint-blocked", severity::error, session.id,
                   path + " cannot be used as a socket",
                   "the helper cannot open its endpoint, so no client reaches it", remove});
  if (session.endpoint == endpoint_state::silent)
    out.push_back({"endpoint-silent",
                   severity::error,
                   session.id,
                   path + " is served, and gives no answer",
                   "the helper hangs, or serves a client that sends nothing (at most 30 seconds)",
                   {"wait a minute, then look again; then end that helper"}});
  const std::string whole = "/tmp/" + endpoint_of(session.id) + ".ipc";
  if (session.daemon.file.exists && whole.size() >= ipc_priv::kSocketPathRoom)
    out.push_back({"socket-path-too-long", severity::error, session.id,
                   muro::stringify("the endpoint's path has ", whole.size(), " bytes"),
                   "the system cuts it, so that sessions with the same beginning share a socket",
                   reset(session.id)});
}

bool is_left_over(const session_facts& session) {
  return !session.agent.file.exists && !session.daemon.file.exists &&
         (session.restore_file.exists || session.helper_copy.exists || session.client_copy.exists);
}

void look_at_session(const session_facts& session, findings& out) {
  if (session.is_live()) return;
  if (is_left_over(session))
    out.push_back({"left-over-target", severity::error, session.id,
                   session.folder.path + " holds files of an earlier registration",
                   "the next registration of this ID fails, because nothing is ever overwritten",
                   reset(session.id)});
  else if (!session.restore_file.exists)
    out.push_back({"nobody-behind",
                   severity::warning,
                   session.id,
                   "there is no " + session.restore_file.path,
                   "the session is over, and something of it is left",
                   {"rnrctl sessions prune --yes"}});
}

void look_for_session(const std::string& id, const survey_result& all, findings& out) {
  const auto is_asked_for = [&id](const session_facts& session) { return session.id == id; };
  if (std::any_of(all.sessions.begin(), all.sessions.end(), is_asked_for)) return;
  out.push_back({"session-unknown",
                 severity::error,
                 id,
                 "nothing of this session is here: no folder, no job, no socket",
                 "it was never registered, has resigned, or was removed when it was over",
                 {"rnrctl log --id " + quoted(id), "rnrctl register FILE"}});
}

// The Mac

void look_at_client(const survey_result& all, findings& out) {
  if (all.client.is_regular()) return;
  if (!all.shared.daemon.file.exists && all.sessions.empty()) return;
  out.push_back({"client-missing",
                 severity::error,
                 "",
                 "there is no " + all.client.path,
                 "no session can be registered with the shared helper, and none comes back",
                 {"install the client"}});
}

void look_at_helper(const survey_result& all, findings& out) {
  if (!all.shared.daemon.file.exists && all.sessions.empty())
    out.push_back({"helper-missing", severity::note, "",
                   "there is no shared daemon, and no session",
                   "clients cannot register, and nothing comes back after a restart", renew("")});
  if (all.shared.daemon.file.exists && all.shared.endpoint == endpoint_state::none)
    out.push_back({"helper-not-serving",
                   severity::error,
                   "",
                   "the shared daemon is installed, and there is no " + all.shared.socket.path,
                   "clients cannot register",
                   {"launchctl load -w " + quoted(all.shared.daemon.file.path)}});
}

std::string label_in(const std::string& path) {
  job_facts job(job_kind::daemon);
  read_job_text(file_content(path), job);
  return job.label_inside;
}

// Two files with one label: launchd takes the one that it sees first.
void look_for_duplicates(const survey_result& all, findings& out) {
  std::map<std::string, std::string> wanted;  // label to its own file
  const auto want = [&wanted](const job_facts& job) {
    if (job.file.is_regular()) wanted[job.label] = job.file.path;
  };
  want(all.shared.daemon);
  for (const session_facts& session : all.sessions) want(session.daemon), want(session.agent);
  std::vector<std::string> files;
  for (const char* const folder : {"/Library/LaunchDaemons/", "/Library/LaunchAgents/"})
    muro::find_files(files, std::string(folder) + "*.plist");
  for (const std::string& path : files) {
    const auto found = facts_of(path).is_regular() ? wanted.find(label_in(path)) : wanted.end();
    if (found == wanted.end() || found->second == path) continue;
    out.push_back({"duplicate-label",
                   severity::error,
                   "",
                   path + " has the label of " + found->second,
                   "launchd loads one of the two, and the helper removes only its own",
                   {"rm " + quoted(path)}});
  }
}

std::vector<std::string> possible_logs(const survey_result& all) {
  std::vector<std::string> paths{std::string(kLogFolder) + "/korvel_helper.out",
                                 std::string(kLogFolder) + "/korvel_helper_install.out"};
  for (const session_facts& session : all.sessions)
    paths.push_back(sessionFolder(session.id) + "/helper/korvel_helper.out");
  return paths;
}

void look_at_logs(const survey_result& all, findings& out) {
  for (const std::string& path : possible_logs(all)) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) continue;
    if (S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == 0) continue;
    out.push_back({"log-not-writable",
                   severity::warning,
                   "",
                   path + " is no file of root's alone",
                   "the helper does not write to it, so there is no log of what it does",
                   {"rm -rf " + quoted(path)}});
  }
}

// What others may change

void look_at_width(const std::string& path, const char* means, findings& out) {
  const file_facts folder = facts_of(path);
  if (!folder.is_folder() || (folder.mode & kWritableByOthers) == 0) return;
  out.push_back({"wide-folder",
                 severity::warning,
                 "",
                 path + " has mode " + mode_text(folder),
                 means,
                 {"chmod go-w " + quoted(path)}});
}

// The session folders themselves have to be wide: a client that runs as a user ends its session by
// removing the restore file.
void look_at_security(const survey_result& all, findings& out) {
  constexpr const char* kAbove = "every user can put another folder in a session's place";
  constexpr const char* kBinary = "every user can replace a program that root runs";
  constexpr const char* kClient =
      "every user can replace the program that other users' sessions run";
  look_at_width("/Library/VeskRuntime", kAbove, out);
  look_at_width("/Library/VeskRuntime/sessions", kAbove, out);
  look_at_width(kLogFolder, kBinary, out);
  for (const session_facts& session : all.sessions) {
    look_at_width(session.folder.path + "/helper", kBinary, out);
    look_at_width(session.folder.path + "/app", kClient, out);
  }
}

}  // namespace

std::vector<finding> diagnose(const survey_result& all, bool security, const std::string& id) {
  findings out;
  if (!id.empty()) look_for_session(id, all, out);
  look_at_client(all, out);
  look_at_helper(all, out);
  look_at_file(all.shared.daemon, "", out);
  look_at_loading(all.shared.daemon, "", all, out);
  look_at_endpoint(all.shared, out);
  for (const session_facts& session : all.sessions) {
    look_at_session(session, out);
    for (const job_facts* const job : {&session.daemon, &session.agent}) {
      look_at_file(*job, session.id, out);
      look_at_loading(*job, session.id, all, out);
    }
    look_at_endpoint(session, out);
  }
  look_for_duplicates(all, out);
  look_at_logs(all, out);
  if (security) look_at_security(all, out);
  if (!id.empty())
    std::erase_if(out, [&id](const finding& f) { return !f.id.empty() && f.id != id; });
  std::stable_sort(out.begin(), out.end(),
                   [](const finding& a, const finding& b) { return a.how_bad > b.how_bad; });
  return out;
}

int status_of(const std::vector<finding>& findings) {
  constexpr int kFirst = 10;
  return findings.empty() ? 0 : kFirst + static_cast<int>(findings.front().how_bad);
}

}  // namespace rnrctl
