#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/survey.h"

namespace rnrctl {
namespace {

using nlohmann::json;

struct status_options {
  bool as_json = false;
};

const char* text_of(endpoint_state state) {
  switch (state) {
    case endpoint_state::none:
      return "none";
    case endpoint_state::answering:
      return "answering";
    case endpoint_state::dead:
      return "dead";
    case endpoint_state::silent:
      return "silent";
    case endpoint_state::unreadable:
      return "unreadable";
  }
  return "";
}

std::string joined(const std::set<std::string>& words) {
  std::string text;
  for (const std::string& word : words) (text += text.empty() ? "" : ",") += word;
  return text;
}

// "-": no file; "ok"; or what is wrong with it, in a word.
std::string file_word(const job_facts& job) {
  if (!job.file.exists) return "-";
  if (!job.file.is_regular()) return "no-file";
  if (mode_text(job.file) != "0644 0:0") return "mode";
  if (job.label_inside != job.label) return "label";
  if (!job.program_exists) return "program";
  return job.as_written ? "ok" : "edited";
}

std::string loaded_word(const job_facts& job, bool known) {
  if (!known) return "?";
  std::string word = job.loaded_in.empty() ? "-" : joined(job.loaded_in);
  if (!job.disabled_in.empty()) word += "(disabled)";
  return word;
}

struct row {
  std::vector<std::string> cells;
};

row row_of(const session_facts& session, bool known) {
  return {{session.id.empty() ? "(shared)" : session.id, state_of(session),
           session.id.empty()                  ? "-"
           : session.restore_file.is_regular() ? "there"
                                               : "missing",
           file_word(session.daemon), loaded_word(session.daemon, known), file_word(session.agent),
           loaded_word(session.agent, known), text_of(session.endpoint)}};
}

void print_table(const std::vector<row>& rows, std::ostream& out) {
  std::vector<std::size_t> widths;
  for (const row& each : rows) {
    widths.resize(std::max(widths.size(), each.cells.size()));
    for (std::size_t i = 0; i < each.cells.size(); ++i)
      widths[i] = std::max(widths[i], each.cells[i].size());
  }
  for (const row& each : rows) {
    std::string line;
    for (std::size_t i = 0; i < each.cells.size(); ++i) {
      line += each.cells[i];
      if (i + 1 < each.cells.size()) line.append(widths[i] + 2 - each.cells[i].size(), ' ');
    }
    out << line << '\n';
  }
}

void print_status(const survey_result& all, std::ostream& out, std::ostream& err) {
  std::vector<row> rows{
      {{"SESSION", "STATE", "RESTORE", "DAEMON", "LOADED", "AGENT", "LOADED", "ENDPOINT"}}};
  rows.push_back(row_of(all.shared, all.launchd_known));
  for (const session_facts& session : all.sessions)
    rows.push_back(row_of(session, all.launchd_known));
  print_table(rows, out);
  for (const std::string& note : all.notes) err << "rnrctl: " << note << '\n';
}

json json_of(const file_facts& file) {
  json facts{{"path", file.path}, {"exists", file.exists}};
  if (!file.exists) return facts;
  facts["mode"] = mode_text(file).substr(0, 4);
  facts["owner"] = file.owner;
  facts["group"] = file.group;
  return facts;
}

json json_of(const job_facts& job, bool known) {
  json facts{{"label", job.label},           {"file", json_of(job.file)},
             {"as_written", job.as_written}, {"label_in_file", job.label_inside},
             {"command", job.command},       {"program_exists", job.program_exists},
             {"right", job.is_right()}};
  if (known) {
    facts["loaded_in"] = job.loaded_in;
    facts["disabled_in"] = job.disabled_in;
  }
  return facts;
}

json json_of(const session_facts& session, bool known) {
  json facts{{"id", session.id},
             {"state", state_of(session)},
             {"daemon", json_of(session.daemon, known)},
             {"agent", json_of(session.agent, known)},
             {"socket", json_of(session.socket)},
             {"endpoint", text_of(session.endpoint)}};
  if (session.id.empty()) return facts;
  facts["folder"] = json_of(session.folder);
  facts["restore_file"] = json_of(session.restore_file);
  facts["helper_copy"] = json_of(session.helper_copy);
  facts["client_copy"] = json_of(session.client_copy);
  return facts;
}

exit_status status(const status_options& options, std::ostream& out, std::ostream& err) {
  const survey_result all = look();
  if (options.as_json) {
    out << status_json(all) << '\n';
  } else {
    print_status(all, out, err);
  }
  return exit_status::done;
}

}  // namespace

std::string status_json(const survey_result& all) {
  json sessions = json::array(), users = json::array();
  for (const session_facts& session : all.sessions)
    sessions.push_back(json_of(session, all.launchd_known));
  for (const user_session& user : all.users) {
    users.push_back({{"name", user.name}, {"login_pid", user.pid}});
    if (user.uid) users.back()["uid"] = *user.uid;
  }
  const json whole{{"shared", json_of(all.shared, all.launchd_known)},
                   {"sessions", sessions},
                   {"users", users},
                   {"client", json_of(all.client)},
                   {"launchd_known", all.launchd_known},
                   {"notes", all.notes}};
  return whole.dump(1, ' ', false, json::error_handler_t::replace);
}

void add_status(CLI::App& app, invocation& asked) {
  CLI::App* const command =
      app.add_subcommand("status", "every session: its files, its jobs, and whether it is served");
  const auto options = std::make_shared<status_options>();
  command->add_flag("--json", options->as_json, "all that is known, as one JSON object");
  command->callback([&asked, options] {
    asked.chosen = [options](std::ostream& out, std::ostream& err) {
      return status(*options, out, err);
    };
  });
}

}  // namespace rnrctl
