#include "tools/rnrctl/requests.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <memory>

#include "front/session_folder.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/strings.h"
#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"
#include "tools/rnrctl/commands.h"

namespace rnrctl {
namespace {

constexpr double kLongest_s = 86400;

// A command that the helper does not know: it answers and changes nothing.
constexpr const char* kPingCommand = "rnr_ping";

void check(const invocation& asked) {
  if (!(asked.timeout_s > 0) || asked.timeout_s > kLongest_s)
    fail_usage("--timeout must be above 0 and at most 86400 seconds");
  if (asked.endpoint.empty() || asked.endpoint.find('/') != std::string::npos)
    fail_usage("--endpoint must be a name, not empty and without a slash");
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
  if (!S_ISREG(about.st_mode))
    throw failure(exit_status::no_file, "cannot read " + path + ": not a regular file");
}

exit_status send(const invocation& asked, const std::string& request, std::ostream& out) {
  const long long begin_ms = muro::relative_time();
  const auto limit_ms = static_cast<long long>(asked.timeout_s * 1000);
  exchange(asked.endpoint, request, std::max(limit_ms, 1LL));
  out << asked.endpoint << " answered in " << muro::relative_time() - begin_ms << " ms\n";
  return exit_status::done;
}

std::string session_file(const std::string& given) {
  if (given.empty()) fail_usage("FILE is empty");
  const std::string path = absolute_path(given);
  require_session_name(path);
  return path;
}

exit_status register_session(const invocation& asked, const std::string& file, std::ostream& out) {
  check(asked);
  const std::string path = session_file(file);
  require_readable(path);
  return send(asked, make_request("rnr_register", path), out);
}

exit_status resign_session(const invocation& asked, const std::string& file, std::ostream& out) {
  check(asked);
  return send(asked, make_request("rnr_resign", session_file(file)), out);
}

exit_status ping(const invocation& asked, std::ostream& out) {
  check(asked);
  return send(asked, make_request(kPingCommand, ""), out);
}

using file_request = exit_status (*)(const invocation&, const std::string&, std::ostream&);

void add_file_request(CLI::App& app, invocation& asked, file_request run, const char* name,
                      const char* about) {
  CLI::App* const command = app.add_subcommand(name, about);
  const auto file = std::make_shared<std::string>();
  command->add_option("FILE", *file, "the session's restore file")->required();
  command->callback([&asked, run, file] {
    asked.chosen = [&asked, run, file](std::ostream& out, std::ostream&) {
      return run(asked, *file, out);
    };
  });
}

}  // namespace

std::string absolute_path(const std::string& path) {
  if (starts_with(path, "/")) return path;
  std::string folder = muro::get_current_dir();
  if (!ends_with(folder, "/")) folder += '/';
  return folder + (starts_with(path, "./") ? path.substr(2) : path);
}

void add_requests(CLI::App& app, invocation& asked) {
  app.add_option("--endpoint", asked.endpoint,
                 "the helper's endpoint: korvel_helper, or korvel_helper_ID")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_option("--timeout", asked.timeout_s, "the time limit for all of a request")
      ->type_name("SECONDS")
      ->capture_default_str();
  add_file_request(app, asked, register_session, "register",
                   "have the session of FILE resumed after a restart; the helper takes FILE away");
  add_file_request(app, asked, resign_session, "resign", "withdraw the session of FILE");
  app.add_subcommand("ping", "see whether the helper answers")->callback([&asked] {
    asked.chosen = [&asked](std::ostream& out, std::ostream&) { return ping(asked, out); };
  });
}

}  // namespace rnrctl
