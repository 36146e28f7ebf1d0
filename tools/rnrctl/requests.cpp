#include "tools/rnrctl/requests.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>

#include "front/installation.h"
#include "front/session_folder.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/strings.h"
#include "muro/sys/unique_fd.h"
#include "osx/job_files.h"
#include "osx/job_text.h"
#include "platform/clock.h"
#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/log_reader.h"
#include "tools/rnrctl/survey.h"

namespace rnrctl {
namespace {

constexpr const char* kAboutFile =
    R"(FILE is the session's restore file: its base name is the session's ID and ".dat". Its absolute
path is sent to the helper. The helper's answer tells nothing but its arrival, so this looks
whether it was done; why not stands in the helper's log (rnrctl log).)";

constexpr const char* kStatuses = R"(Exit status:
  0  done
  1  any other failure
  2  wrong use
  3  no helper serves the endpoint
  4  refused: the helper closed the connection without an answer
  5  time-out)";

constexpr double kLongest_s = 86400;

// A command that the helper does not know: it answers and changes nothing.
constexpr const char* kPingCommand = "rnr_ping";

void check(const invocation& asked) {
  if (!(asked.timeout_s > 0) || asked.timeout_s > kLongest_s)
    fail_usage("--timeout must be above 0 and at most 86400 seconds");
  if (asked.endpoint.empty() || asked.endpoint.find('/') != std::string::npos)
    fail_usage("--endpoint must be a name, not empty and without a slash");
}

// Whether a job file can hold the path: XML has no place for some bytes, and the helper drops them,
// so that the client would be told another path.
bool survives_in_job_file(const std::string& path) {
  job_facts job(job_kind::agent);
  read_job_text(osx::launchd_agent_text("label", {path}), job);
  return job.command == std::vector<std::string>{path};
}

// The helper would answer these like any other and leave all as it is, or register a session that
// cannot come back.
void require_session_name(const std::string& path) {
  const nil_string id = restoreIDFromFile(path);
  if (!namesSession(id))
    throw failure(exit_status::wrong_use,
                  path + " names no session: its base name must be an ID and \".dat\"");
  if (!survives_in_job_file(sessionFolder(*id)) || printable(*id) != *id)
    throw failure(exit_status::wrong_use, printable(path) +
                                              " names a session by bytes that no job "
                                              "file can hold");
  const std::string job = muro::basename(osx::launchd_agent_path(kVeskRNRAgentName + ("." + *id)));
  if (job.size() > NAME_MAX)
    throw failure(exit_status::wrong_use,
                  path + " names a session by an ID that is too long for a file name");
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
  const long long begin_us = platform::monotonic_us();
  const auto limit_ms = static_cast<long long>(asked.timeout_s * 1000);
  exchange(asked.endpoint, request, std::max(limit_ms, 1LL));
  const long long took_us = platform::monotonic_us() - begin_us;
  out << asked.endpoint << " answered in " << (took_us + 500) / 1000 << " ms\n";
  return exit_status::done;
}

/// Whether the helper has done what it was asked; "" when it has, else what is not as it should be.
/// It has when the answer is there, since it answers after the work.
using verification = std::string (*)(const std::string& file, const std::string& id);

std::string missing_after_register(const std::string& file, const std::string& id) {
  const std::string kept = sessionFolder(id) + "/" + id + ".dat";
  if (muro::file_exists(file)) return file + " is still there";
  if (!muro::file_exists(kept)) return "there is no " + kept;
  return agentInstalled(id) ? "" : "the restart agent's job file is not there";
}

std::string left_after_resign(const std::string&, const std::string& id) {
  return agentInstalled(id) ? "the restart agent's job file is still there" : "";
}

void verify(verification check, const std::string& file) {
  const std::string id = *restoreIDFromFile(file);
  const std::string wrong = check(file, id);
  if (wrong.empty()) return;
  throw failure(exit_status::not_done, "the helper answered, but " + wrong +
                                           " (see rnrctl log --id " + id + ", rnrctl doctor)");
}

std::string session_file(const std::string& given) {
  if (given.empty()) fail_usage("FILE is empty");
  std::string path = absolute_path(given);
  require_session_name(path);
  return path;
}

struct request_options {
  std::string file;
  bool unverified = false;
};

exit_status register_session(const invocation& asked, const request_options& options,
                             std::ostream& out) {
  check(asked);
  const std::string path = session_file(options.file);
  require_readable(path);
  const exit_status status = send(asked, make_request("rnr_register", path), out);
  if (!options.unverified) verify(missing_after_register, path);
  return status;
}

exit_status resign_session(const invocation& asked, const request_options& options,
                           std::ostream& out) {
  check(asked);
  const std::string path = session_file(options.file);
  const exit_status status = send(asked, make_request("rnr_resign", path), out);
  if (!options.unverified) verify(left_after_resign, path);
  return status;
}

exit_status ping(const invocation& asked, std::ostream& out) {
  check(asked);
  return send(asked, make_request(kPingCommand, ""), out);
}

using file_request = exit_status (*)(const invocation&, const request_options&, std::ostream&);

void add_file_request(CLI::App& app, invocation& asked, file_request run, const char* name,
                      const char* about) {
  CLI::App* const command = app.add_subcommand(name, about);
  const auto options = std::make_shared<request_options>();
  command->add_option("FILE", options->file, "the session's restore file")->required();
  command->add_flag("--no-verify", options->unverified,
                    "do not look whether the helper has done it");
  command->footer(kAboutFile + std::string("\n\n") + kStatuses +
                  "\n  6  FILE cannot be read (register)"
                  "\n  7  the helper answered, and did not do it");
  command->callback([&asked, run, options] {
    asked.chosen = [&asked, run, options](std::ostream& out, std::ostream&) {
      return run(asked, *options, out);
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
  CLI::App* const command = app.add_subcommand("ping", "see whether the helper answers");
  command->footer(kStatuses);
  command->callback([&asked] {
    asked.chosen = [&asked](std::ostream& out, std::ostream&) { return ping(asked, out); };
  });
}

}  // namespace rnrctl
