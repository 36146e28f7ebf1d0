#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>

#include "front/session_folder.h"
#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/doctor.h"

namespace rnrctl {
namespace {

struct doctor_options {
  std::string id;
  bool security = false;
  bool as_json = false;
};

const char* text_of(severity how_bad) {
  switch (how_bad) {
    case severity::note:
      return "note";
    case severity::warning:
      return "warning";
    case severity::error:
      return "error";
  }
  return "";
}

void print(const finding& found, std::ostream& out) {
  out << text_of(found.how_bad) << ": " << found.name;
  if (!found.id.empty()) out << " (session " << found.id << ")";
  out << "\n  seen:  " << found.seen << "\n  means: " << found.means << '\n';
  for (const std::string& step : found.advice) out << "  do:    " << step << '\n';
}

nlohmann::json json_of(const finding& found) {
  return {{"name", found.name},   {"severity", text_of(found.how_bad)},
          {"id", found.id},       {"seen", found.seen},
          {"means", found.means}, {"advice", found.advice}};
}

void print_all(const std::vector<finding>& findings, const survey_result& all, bool as_json,
               std::ostream& out, std::ostream& err) {
  if (as_json) {
    nlohmann::json list = nlohmann::json::array();
    for (const finding& found : findings) list.push_back(json_of(found));
    out << list.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return;
  }
  for (const finding& found : findings) print(found, out);
  for (const std::string& note : all.notes) err << "rnrctl: " << note << '\n';
  if (findings.empty()) out << "nothing found\n";
}

exit_status doctor(const doctor_options& options, std::ostream& out, std::ostream& err) {
  if (!options.id.empty() && !namesSession(options.id))
    fail_usage("\"" + options.id + "\" is no session's ID");
  const survey_result all = look();
  const std::vector<finding> findings = diagnose(all, options.security, options.id);
  print_all(findings, all, options.as_json, out, err);
  return static_cast<exit_status>(status_of(findings));
}

}  // namespace

void add_doctor(CLI::App& app, invocation& asked) {
  CLI::App* const command =
      app.add_subcommand("doctor", "why a session does not come back, and what to do about it");
  const auto options = std::make_shared<doctor_options>();
  command->add_option("ID", options->id, "only what concerns this session and the whole Mac");
  command->add_flag("--security", options->security, "also what others than root may change");
  command->add_flag("--json", options->as_json, "the findings as a JSON array");
  command->footer(
      "Exit status: 0 nothing found; 10 notes, 11 warnings, 12 errors; 1 any failure, 2 wrong "
      "use.");
  command->callback([&asked, options] {
    asked.chosen = [options](std::ostream& out, std::ostream& err) {
      return doctor(*options, out, err);
    };
  });
}

}  // namespace rnrctl
