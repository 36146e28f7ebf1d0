#include <CLI/CLI.hpp>
#include <memory>

#include "front/session_folder.h"
#include "muro/sys/strings.h"
#include "osx/sessions.h"
#include "platform/platform.h"
#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/plan.h"
#include "tools/rnrctl/requests.h"
#include "tools/rnrctl/survey.h"

namespace rnrctl {
namespace {

struct plan_options {
  std::string action;
  std::string file;
  std::string bundle = "/Applications/Korvel.app";
  std::string release;
  std::vector<std::string> users;
  std::string console;
  bool as_if_users = false;
};

// "alice:501" or "alice:501:1234", the last the process of the login.
planned_user user_of(const std::string& text) {
  constexpr unsigned kSomePid = 100;
  std::vector<std::string> parts = CLI::detail::split(text, ':');
  planned_user user;
  user.name = parts.front();
  parts.resize(3);
  if (user.name.empty() || !CLI::detail::lexical_cast(parts[1], user.uid) ||
      (!parts[2].empty() && !CLI::detail::lexical_cast(parts[2], user.login_pid)))
    fail_usage("--users takes NAME:UID or NAME:UID:PID, not \"" + text + "\"");
  if (parts[2].empty()) user.login_pid = kSomePid;
  return user;
}

std::vector<planned_user> users_here() {
  std::vector<planned_user> users;
  for (const user_session& each : users_logged_in())
    users.push_back({each.name, each.uid.value_or(0), each.pid});
  return users;
}

planned_mac mac_of(const plan_options& options) {
  planned_mac mac;
  const auto selector = platform::older_version_selector;
  mac.release = muro::os_release_of(
      options.release.empty() ? platform::product_version() : options.release, selector);
  if (!options.as_if_users) mac.users = users_here();
  for (const std::string& text : options.users)
    if (!text.empty()) mac.users.push_back(user_of(text));
  mac.console = options.console;
  return mac;
}

std::vector<planned_step> steps_of(const plan_options& options) {
  const planned_mac mac = mac_of(options);
  if (options.action == "install") return plan_install(mac);
  if (options.file.empty()) fail_usage("plan " + options.action + " needs FILE");
  const std::string file = absolute_path(options.file);
  if (!namesSession(restoreIDFromFile(file)))
    throw failure(exit_status::wrong_use,
                  file + " names no session: its base name must be an ID and \".dat\"");
  if (options.action == "register") return plan_register(mac, file);
  if (options.action == "resign") return plan_resign(mac, file);
  if (options.action == "remove-session") return plan_remove_session(mac, file);
  return plan_install_session(mac, options.bundle, file);
}

exit_status plan(const plan_options& options, std::ostream& out) {
  for (const planned_step& step : steps_of(options)) out << line_of(step) << '\n';
  return exit_status::done;
}

}  // namespace

void add_plan(CLI::App& app, invocation& asked) {
  CLI::App* const command =
      app.add_subcommand("plan", "print what the helper would do for a request, and touch nothing");
  const auto options = std::make_shared<plan_options>();
  command
      ->add_option("ACTION", options->action,
                   "register, resign, install, install-session or remove-session")
      ->required()
      ->check(
          CLI::IsMember({"register", "resign", "install", "install-session", "remove-session"}));
  command->add_option("FILE", options->file, "the session's restore file");
  command->add_option("--bundle", options->bundle, "the client, for install-session")
      ->type_name("PATH")
      ->capture_default_str();
  command->add_option("--as-if", options->release, "on this release of macOS; without, on this one")
      ->type_name("RELEASE");
  command
      ->add_option("--users", options->users,
                   "with these users logged in: NAME:UID or NAME:UID:PID, with commas between")
      ->type_name("LIST")
      ->delimiter(',')
      ->each([options](const std::string&) { options->as_if_users = true; });
  command
      ->add_option("--console", options->console,
                   "the user at the console, for a helper that has the display (a daemon has none)")
      ->type_name("NAME");
  command->callback([&asked, options] {
    asked.chosen = [options](std::ostream& out, std::ostream&) { return plan(*options, out); };
  });
}

}  // namespace rnrctl
