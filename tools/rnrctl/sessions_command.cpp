#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "front/installation.h"
#include "front/session_folder.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/survey.h"

namespace rnrctl {
namespace {

struct removal_options {
  std::string id;
  bool yes = false;
};

/// One thing that is left of a session, and how it is removed. The order of a session's steps
/// counts: what would start a process goes before what the process would use.
struct step {
  std::string what;
  std::function<bool()> remove;
};

bool delete_tree(const std::string& path) {
  try {
    muro::delete_recursive(path);
  } catch (const muro::exception&) {
    return false;
  }
  return true;
}

std::string domains(const job_facts& job) {
  std::string text;
  for (const std::string& domain : job.loaded_in) (text += text.empty() ? "" : ", ") += domain;
  return text.empty() ? "" : ", loaded in " + text;
}

void add_job(std::vector<step>& steps, const job_facts& job, const std::string& id,
             bool (*uninstall)(const nil_string&)) {
  if (!job.file.exists && job.loaded_in.empty()) return;
  steps.push_back({"job " + job.label + domains(job), [id, uninstall] { return uninstall(id); }});
}

std::vector<step> steps_for(const session_facts& session) {
  std::vector<step> steps;
  add_job(steps, session.agent, session.id, uninstallAgent);
  add_job(steps, session.daemon, session.id, uninstallService);
  for (const file_facts* const entry : {&session.socket, &session.folder}) {
    if (!entry->exists) continue;
    const std::string path = entry->path;
    steps.push_back({path, [path] { return delete_tree(path); }});
  }
  return steps;
}

void require_root() {
  if (::geteuid() != 0) throw failure(exit_status::failed, "only root can do this (use sudo)");
}

// Tells the steps, and takes them with --yes. Every step is tried, whatever became of the others.
bool remove(const session_facts& session, bool yes, std::ostream& out) {
  bool all_gone = true;
  for (const step& each : steps_for(session)) {
    const bool gone = !yes || each.remove();
    all_gone = all_gone && gone;
    out << (!yes ? "would remove " : gone ? "removed " : "could not remove ") << each.what << '\n';
  }
  return all_gone;
}

exit_status finish(bool found, bool all_gone, bool yes, std::ostream& out) {
  if (!found) out << "nothing to remove\n";
  if (found && !yes) out << "nothing was changed; --yes removes it\n";
  if (!all_gone) throw failure(exit_status::failed, "not all of it could be removed");
  return exit_status::done;
}

exit_status reset(const removal_options& options, std::ostream& out) {
  if (!namesSession(options.id)) fail_usage("\"" + options.id + "\" is no session's ID");
  if (options.yes) require_root();
  survey_options only;
  only.all = false;
  only.only_id = options.id;
  const session_facts session = look(only).sessions.front();
  if (session.is_live())
    throw failure(exit_status::failed,
                  "session " + options.id + " is live: have its client resign first");
  return finish(!session.is_gone(), remove(session, options.yes, out), options.yes, out);
}

exit_status prune(const removal_options& options, std::ostream& out) {
  if (options.yes) require_root();
  bool found = false, all_gone = true;
  for (const session_facts& session : look().sessions) {
    if (session.restore_file.exists || session.endpoint == endpoint_state::answering) continue;
    found = true;
    out << "session " << session.id << ":\n";
    all_gone = remove(session, options.yes, out) && all_gone;
  }
  return finish(found, all_gone, options.yes, out);
}

using removal = exit_status (*)(const removal_options&, std::ostream&);

CLI::App* add_removal(CLI::App& sessions, invocation& asked, removal run, const char* name,
                      const char* about) {
  CLI::App* const command = sessions.add_subcommand(name, about);
  const auto options = std::make_shared<removal_options>();
  if (run == reset) command->add_option("ID", options->id, "the session")->required();
  command->add_flag("--yes", options->yes, "do it; without, only say what would be done");
  command->callback([&asked, run, options] {
    asked.chosen = [run, options](std::ostream& out, std::ostream&) { return run(*options, out); };
  });
  return command;
}

}  // namespace

void add_sessions(CLI::App& app, invocation& asked) {
  CLI::App* const sessions =
      app.add_subcommand("sessions", "remove what is left of sessions that are over");
  sessions->require_subcommand(1);
  add_removal(*sessions, asked, prune, "prune", "all sessions that have no restore file any more");
  add_removal(*sessions, asked, reset, "reset", "one session, unless it is live");
}

}  // namespace rnrctl
