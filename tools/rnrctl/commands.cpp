#include "tools/rnrctl/commands.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <optional>

namespace rnrctl {
namespace {

constexpr const char* kAbout =
    "Asks the Korvel helper to bring a support session back after a restart, and tells why one did "
    "not come back.";

constexpr const char* kStatuses = R"(Exit status:
  0  done
  1  any other failure
  2  wrong use, or a FILE whose name holds no ID
  3  no helper serves the endpoint
  4  refused: the helper closed the connection without an answer
  5  time-out
  6  FILE cannot be read (register)
  7  the helper answered, and did not do it (register, resign)
  10, 11, 12  the worst that doctor found: a note, a warning, an error)";

std::string version() {
  return std::string("rnrctl ") + kToolVersion;
}

exit_status print(std::ostream& out, const std::string& text) {
  out << text;
  return exit_status::done;
}

/// The reader misses a command where it has one that it does not know.
std::optional<std::string> unknown_command(const CLI::App& app) {
  const CLI::App* asked = &app;
  while (!asked->get_subcommands().empty()) asked = asked->get_subcommands().front();
  const std::vector<std::string> left = app.remaining(true);
  const bool is_missed = asked->get_require_subcommand_min() > 0 && !left.empty();
  if (!is_missed || left.front().starts_with('-')) return std::nullopt;
  return "no such command: " + left.front();
}

exit_status run(const std::vector<std::string>& words, std::ostream& out, std::ostream& err) {
  invocation asked;
  CLI::App app(kAbout, "rnrctl");
  add_commands(app, asked);
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::CallForHelp&) {
    return print(out, app.help());
  } catch (const CLI::CallForVersion&) {
    return print(out, version() + "\n");
  } catch (const CLI::ParseError& e) {
    fail_usage(unknown_command(app).value_or(e.what()));
  }
  return asked.chosen(out, err);
}

}  // namespace

void add_commands(CLI::App& app, invocation& asked) {
  app.set_help_flag("-h,--help", "print this text, or with a command the command's own");
  app.set_version_flag("--version", version(), "print the version");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "Exit status: 0 done, 1 any failure, 2 wrong use.");  // a command's, unless it has more
  for (const auto add : {add_requests, add_status, add_doctor, add_sessions, add_plan, add_wait,
                         add_log, add_explain, add_bundle, add_completion})
    add(app, asked);
  app.footer(kStatuses);
}

void fail_usage(const std::string& line) {
  throw failure(exit_status::wrong_use, line + " (see rnrctl --help)");
}

exit_status rnrctl_main(const std::vector<std::string>& words, std::ostream& out,
                        std::ostream& err) {
  try {
    const exit_status status = run(words, out, err);
    if (!out.flush()) throw failure(exit_status::failed, "cannot write the output");
    return status;
  } catch (const failure& e) {
    err << "rnrctl: " << e.what() << '\n';
    return e.status();
  } catch (const std::exception& e) {
    err << "rnrctl: " << e.what() << '\n';
    return exit_status::failed;
  }
}

}  // namespace rnrctl
