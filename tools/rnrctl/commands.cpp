#include "tools/rnrctl/commands.h"

#include <CLI/CLI.hpp>
#include <exception>

namespace rnrctl {
namespace {

constexpr const char* kAbout =
    "Asks the Korvel helper to bring a support session back after a restart, and tells why one did "
    "not come back.";

constexpr const char* kFooter =
    R"(FILE is the session's restore file: its base name is the session's ID and ".dat". Its absolute
path is sent to the helper. The helper's answer tells nothing but its arrival; what became of
the request stands in the helper's log, korvel_helper.out beside its executable.

Exit status:
  0  done
  1  any other failure
  2  wrong use, or a FILE whose name holds no ID
  3  no helper serves the endpoint
  4  refused: the helper closed the connection without an answer
  5  time-out
  6  FILE cannot be read (register)
  7  the helper answered, and did not do it (register, resign))";

std::string version() {
  return std::string("rnrctl ") + kToolVersion;
}

exit_status print(std::ostream& out, const std::string& text) {
  out << text;
  return exit_status::done;
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
    fail_usage(e.what());
  }
  return asked.chosen(out, err);
}

}  // namespace

void add_commands(CLI::App& app, invocation& asked) {
  app.set_help_flag("-h,--help", "print this text, or with a command the command's own");
  app.set_version_flag("--version", version(), "print the version");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(kFooter);
  for (const auto add : {add_requests, add_status, add_doctor, add_sessions, add_plan, add_wait,
                         add_log, add_explain, add_bundle, add_completion})
    add(app, asked);
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
