#include "tools/rnrctl/survey.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "client/korvel_rnr.h"
#include "front/installation.h"
#include "front/session_folder.h"
#include "muro/core/exception.h"
#include "muro/core/fmt.h"
#include "muro/sys/files.h"
#include "muro/sys/process.h"
#include "muro/sys/strings.h"
#include "muro/sys/xfile.h"
#include "osx/job_files.h"
#include "osx/job_text.h"
#include "osx/sessions.h"
#include "tools/rnrctl/launchd_view.h"

namespace rnrctl {
namespace {

constexpr const char* kClient = "/Applications/Korvel.app/Contents/MacOS/korvel";
constexpr const char* kSharedName = "korvel_helper";
constexpr mode_t kJobFileMode = 0644;

std::string label_of(job_kind kind, const std::string& id) {
  const std::string prefix = kind == job_kind::daemon ? kVeskRNRServiceName : kVeskRNRAgentName;
  return id.empty() ? prefix : prefix + "." + id;
}

std::string job_path(job_kind kind, const std::string& label) {
  return kind == job_kind::daemon ? osx::launchd_daemon_path(label)
                                  : osx::launchd_agent_path(label);
}

std::string without_entities(std::string text) {
  replace_all(text, "&lt;", "<");
  replace_all(text, "&gt;", ">");
  replace_all(text, "&amp;", "&");
  return text;
}

// Takes the next <string> element's text off the front; false when something else comes first.
bool take_string(std::string_view& text, std::string& out) {
  constexpr std::string_view kOpen = "<string>", kClose = "</string>";
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos || text.compare(start, kOpen.size(), kOpen) != 0)
    return false;
  text.remove_prefix(start + kOpen.size());
  const std::size_t end = text.find(kClose);
  if (end == std::string_view::npos) return false;
  out = without_entities(std::string(text.substr(0, end)));
  text.remove_prefix(end + kClose.size());
  return true;
}

std::string_view behind(std::string_view text, std::string_view mark) {
  const std::size_t at = text.find(mark);
  return at == std::string_view::npos ? std::string_view() : text.substr(at + mark.size());
}

job_facts look_at_job(job_kind kind, const std::string& id, const launchd_view& launchd) {
  job_facts job(kind);
  job.label = label_of(kind, id);
  job.file = facts_of(job_path(kind, job.label));
  if (job.file.is_regular()) read_job_text(file_content(job.file.path), job);
  job.program_exists = !job.command.empty() && muro::file_exists(job.command.front());
  const auto take = [&job](const auto& from, std::set<std::string>& to) {
    const auto found = from.find(job.label);
    if (found != from.end()) to = found->second;
  };
  take(launchd.loaded, job.loaded_in);
  take(launchd.disabled, job.disabled_in);
  return job;
}

endpoint_state ask_endpoint(const file_facts& socket, const std::string& name, int limit_ms) {
  if (!socket.exists) return endpoint_state::none;
  if (!socket.is_socket()) return endpoint_state::unreadable;
  switch (korvel_rnr_ping(name.c_str(), limit_ms)) {
    case KORVEL_RNR_DONE:
      return endpoint_state::answering;
    case KORVEL_RNR_NO_ENDPOINT:
      return endpoint_state::dead;
    case KORVEL_RNR_TIMED_OUT:
    case KORVEL_RNR_REFUSED:
      return endpoint_state::silent;
    default:
      return endpoint_state::unreadable;
  }
}

std::string socket_path(const std::string& id) {
  char path[KORVEL_RNR_PATH_ROOM];
  return {path, korvel_rnr_endpoint_path(path, endpoint_of(id).c_str())};
}

file_facts bundle_in(const std::string& folder) {
  std::vector<std::string> found;
  muro::find_files(found, folder + "/app/*");
  return facts_of(found.empty() ? folder + "/app/Korvel.app" : found.front());
}

// The arguments of every process, one a line; empty where they cannot be had.
std::string process_list() {
  constexpr long kLimit_s = 5;
  try {
    return muro::process::system_immediate("ps", {"-axww", "-o", "args="}, nullptr, kLimit_s);
  } catch (const muro::exception&) {
    return {};
  }
}

session_facts look_at(const std::string& id, const launchd_view& launchd,
                      const std::string& processes, const survey_options& options) {
  session_facts session;
  session.id = id;
  if (!id.empty()) {
    const std::string folder = sessionFolder(id);
    session.folder = facts_of(folder);
    session.restore_file = facts_of(folder + "/" + id + ".dat");
    session.helper_copy = facts_of(folder + "/helper/KorvelHelper");
    session.client_copy = bundle_in(folder);
    session.has_process = processes.find(folder + "/") != std::string::npos;
  }
  session.daemon = look_at_job(job_kind::daemon, id, launchd);
  session.agent = look_at_job(job_kind::agent, id, launchd);
  session.socket = facts_of(socket_path(id));
  session.endpoint = ask_endpoint(session.socket, endpoint_of(id), options.endpoint_limit_ms);
  return session;
}

// The ID between `prefix` and `suffix`; false when the name has another form or no ID in it.
bool take_id(const std::string& name, const std::string& prefix, const std::string& suffix,
             std::set<std::string>& ids) {
  if (name.size() <= prefix.size() + suffix.size() || !starts_with(name, prefix.c_str()) ||
      !ends_with(name, suffix.c_str()))
    return false;
  const std::string id = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
  if (namesSession(id)) ids.insert(id);
  return true;
}

void take_ids(const std::string& pattern, const std::string& prefix, const std::string& suffix,
              std::set<std::string>& ids) {
  std::vector<std::string> paths;
  muro::find_files(paths, pattern);
  for (const std::string& path : paths) take_id(muro::basename(path), prefix, suffix, ids);
}

std::set<std::string> known_ids(const launchd_view& launchd) {
  const std::string daemon = std::string(kVeskRNRServiceName) + ".";
  const std::string agent = std::string(kVeskRNRAgentName) + ".";
  std::set<std::string> ids;
  take_ids(std::string(kSessionsRoot) + "*", "", "", ids);
  take_ids(osx::launchd_daemon_path(daemon + "*"), daemon, ".plist", ids);
  take_ids(osx::launchd_agent_path(agent + "*"), agent, ".plist", ids);
  take_ids("/tmp/korvel_helper_*.ipc", "korvel_helper_", ".ipc", ids);
  for (const auto& [label, domains] : launchd.loaded)
    if (!take_id(label, daemon, "", ids)) take_id(label, agent, "", ids);
  return ids;
}

}  // namespace

std::string file_content(const std::string& path) {
  std::string content;
  muro::xfile file(path, muro::xfile::read_only, false);
  while (file.read(content)) {
  }
  return content;
}

bool file_facts::is_regular() const {
  return exists && S_ISREG(mode);
}

bool file_facts::is_folder() const {
  return exists && S_ISDIR(mode);
}

bool file_facts::is_socket() const {
  return exists && S_ISSOCK(mode);
}

file_facts facts_of(const std::string& path) {
  file_facts facts;
  facts.path = path;
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return facts;
  facts.exists = true;
  facts.mode = status.st_mode;
  facts.owner = status.st_uid;
  facts.group = status.st_gid;
  return facts;
}

bool job_facts::is_right() const {
  return file.is_regular() && (file.mode & 07777) == kJobFileMode && file.owner == 0 &&
         file.group == 0 && label_inside == label && program_exists;
}

void read_job_text(const std::string& text, job_facts& job) {
  std::string_view label = behind(text, "<key>Label</key>");
  take_string(label, job.label_inside);
  std::string_view words = behind(behind(text, "<key>ProgramArguments</key>"), "<array>");
  for (std::string word; take_string(words, word);) job.command.push_back(word);
  const auto written =
      job.kind == job_kind::daemon ? osx::launchd_daemon_text : osx::launchd_agent_text;
  job.as_written = text == written(job.label_inside, job.command);
}

bool session_facts::is_gone() const {
  return !folder.exists && !daemon.file.exists && !agent.file.exists && !socket.exists &&
         daemon.loaded_in.empty() && agent.loaded_in.empty();
}

bool session_facts::is_live() const {
  return restore_file.exists && (has_process || endpoint == endpoint_state::answering);
}

bool session_facts::is_resumable() const {
  return restore_file.is_regular() && agent.is_right() && agent.disabled_in.empty();
}

std::string state_of(const session_facts& session) {
  const bool loaded = !session.daemon.loaded_in.empty() || !session.agent.loaded_in.empty();
  const bool has_job_file = session.daemon.file.exists || session.agent.file.exists;
  if (session.id.empty()) return session.daemon.is_right() ? "installed" : "not installed";
  if (session.is_resumable()) return "resumable";
  if (loaded && !has_job_file) return "loaded without a file";
  if (!session.restore_file.exists) return "orphaned";
  return "half installed";
}

std::vector<user_session> users_logged_in() {
  std::vector<user_session> users;
  for (const auto& [pid, name] : get_sessions_v2()) {
    const passwd* const entry = ::getpwnam(name.c_str());  // the tool has one thread
    users.push_back({pid, name, entry ? std::optional<uid_t>(entry->pw_uid) : std::nullopt});
  }
  return users;
}

survey_result look(const survey_options& options) {
  survey_result result;
  result.users = users_logged_in();
  result.client = facts_of(kClient);
  launchd_view launchd;
  if (options.ask_launchd) launchd = ask_launchd(result.users);
  result.launchd_known = launchd.known;
  result.notes = launchd.notes;
  const std::string processes = process_list();
  result.shared = look_at("", launchd, processes, options);
  for (const std::string& id : options.all ? known_ids(launchd) : std::set{options.only_id})
    result.sessions.push_back(look_at(id, launchd, processes, options));
  return result;
}

std::string mode_text(const file_facts& facts) {
  if (!facts.exists) return "-";
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(facts.mode & 07777));
  return muro::stringify(static_cast<const char*>(mode), " ", facts.owner, ":", facts.group);
}

std::string endpoint_of(const std::string& id) {
  return id.empty() ? kSharedName : std::string(kSharedName) + "_" + id;
}

}  // namespace rnrctl
