#include "tools/rnrctl/commands.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <exception>

#include "front/session_folder.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/strings.h"
#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"

namespace rnrctl {
namespace {

constexpr const char* kVersion = "rnrctl 1.0.0";
constexpr double kLongest_s = 86400;

constexpr const char* kAbout =
    "Asks the Korvel helper to bring a support session back after a restart.";

constexpr const char* kFooter =
    R"(FILE is the session's restore file: its base name is the session's ID and ".dat". Its absolute
path is sent to the helper. The helper's answer tells nothing but its arrival; what became of
the request stands in the helper's log, korvel_helper.out beside its executable.

Exit status:
  0  the helper answered
  1  any other failure
  2  wrong use, or a FILE whose name holds no ID
  3  no helper serves the endpoint
  4  refused: the helper closed the connection without an answer
  5  time-out
  6  FILE cannot be read (register))";

// A command that the helper does not know: it answers and changes nothing.
constexpr const char* kPingCommand = "rnr_ping";

void describe(CLI::App& app, invocation& asked) {
  app.set_help_flag("-h,--help", "print this text");
  app.set_version_flag("--version", std::string(kVersion), "print the version");
  app.add_option("--endpoint", asked.endpoint,
                 "the helper's endpoint: korvel_helper, or korvel_helper_ID")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_option("--timeout", asked.timeout_s, "the time limit for all of it")
      ->type_name("SECONDS")
      ->capture_default_str();
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(kFooter);
}

void add_command(CLI::App& app, invocation& asked, action what, const char* name,
                 const char* about) {
  CLI::App* command = app.add_subcommand(name, about);
  command->set_help_flag();
  if (what != action::ping) {
    command->add_option("FILE", asked.file, "the session's restore file")->required();
  }
  command->callback([&asked, what] { asked.asked = what; });
}

[[noreturn]] void fail_usage(const std::string& line) {
  throw failure(exit_status::wrong_use, line + " (see rnrctl --help)");
}

void check(const invocation& asked) {
  if (!(asked.timeout_s > 0) || asked.timeout_s > kLongest_s) {
    fail_usage("--timeout must be above 0 and at most 86400 seconds");
  }
  if (asked.endpoint.empty() || asked.endpoint.find('/') != std::string::npos) {
    fail_usage("--endpoint must be a name, not empty and without a slash");
  }
  if (asked.asked != action::ping && asked.file.empty()) fail_usage("FILE is empty");
}

// The helper would answer a file without an ID like any other and leave all as it is.
void require_session_name(const std::string& path) {
  if (namesSession(restoreIDFromFile(path))) return;
  throw failure(exit_status::wrong_use,
                path + " names no session: its base name must be an ID and \".dat\"");
}

[[noreturn]] void fail_unreadable(const std::string& path, int error) {
  throw failure(exit_status::no_file, "cannot read " + path + ": " + muro::safe_strerror(error));
}

void require_readable(const std::string& path) {
  const muro::unique_fd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.is_open()) fail_unreadable(path, errno);
  struct stat about {};
  if (::fstat(file.get(), &about) != 0) fail_unreadable(path, errno);
  if (!S_ISREG(about.st_mode)) {
    throw failure(exit_status::no_file, "cannot read " + path + ": not a regular file");
  }
}

std::string request_of(const invocation& asked) {
  if (asked.asked == action::ping) return make_request(kPingCommand, "");
  const std::string path = absolute_path(asked.file);
  require_session_name(path);
  if (asked.asked == action::resign_session) return make_request("rnr_resign", path);
  require_readable(path);
  return make_request("rnr_register", path);
}

}  // namespace

invocation parse(const std::vector<std::string>& words, std::string& notice) {
  invocation asked;
  CLI::App app(kAbout, "rnrctl");
  describe(app, asked);
  add_command(app, asked, action::register_session, "register",
              "FILE: have the session resumed after a restart;\nthe helper takes FILE away");
  add_command(app, asked, action::resign_session, "resign", "FILE: withdraw a registered session");
  add_command(app, asked, action::ping, "ping", "see whether the helper answers");
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::CallForHelp&) {
    notice = app.help();
    return {};
  } catch (const CLI::CallForVersion&) {
    notice = std::string(kVersion) + "\n";
    return {};
  } catch (const CLI::ParseError& e) {
    fail_usage(e.what());
  }
  check(asked);
  return asked;
}

std::string absolute_path(const std::string& path) {
  if (starts_with(path, "/")) return path;
  std::string folder = muro::get_current_dir();
  if (!ends_with(folder, "/")) folder += '/';
  return folder + (starts_with(path, "./") ? path.substr(2) : path);
}

void run(const invocation& asked, std::ostream& out) {
  const std::string request = request_of(asked);
  const long long begin_ms = muro::relative_time();
  const auto limit_ms = static_cast<long long>(asked.timeout_s * 1000);
  exchange(asked.endpoint, request, limit_ms > 0 ? limit_ms : 1);
  out << asked.endpoint << " answered in " << muro::relative_time() - begin_ms << " ms\n";
}

exit_status rnrctl_main(const std::vector<std::string>& words, std::ostream& out,
                        std::ostream& err) {
  try {
    std::string notice;
    const invocation asked = parse(words, notice);
    out << notice;
    if (asked.asked != action::none) run(asked, out);
    return exit_status::done;
  } catch (const failure& e) {
    err << "rnrctl: " << e.what() << '\n';
    return e.status();
  } catch (const std::exception& e) {
    err << "rnrctl: " << e.what() << '\n';
    return exit_status::failed;
  }
}

}  // namespace rnrctl
