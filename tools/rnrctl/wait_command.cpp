#include <CLI/CLI.hpp>
#include <memory>

#include "front/session_folder.h"
#include "muro/sys/time.h"
#include "platform/clock.h"
#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/survey.h"

namespace rnrctl {
namespace {

constexpr unsigned long long kLook_us = 200'000;

struct wait_options {
  std::string loaded;
  std::string gone;
};

session_facts look_at(const std::string& id, bool& launchd_known) {
  survey_options only;
  only.all = false;
  only.only_id = id;
  const survey_result seen = look(only);
  launchd_known = seen.launchd_known;
  return seen.sessions.front();
}

bool is_loaded(const std::string& id) {
  bool launchd_known = false;
  const session_facts session = look_at(id, launchd_known);
  if (!launchd_known) throw failure(exit_status::failed, "launchd cannot be asked (is this root?)");
  return !session.agent.loaded_in.empty() || !session.daemon.loaded_in.empty();
}

bool is_gone(const std::string& id) {
  bool launchd_known = false;
  return look_at(id, launchd_known).is_gone();
}

exit_status wait(const wait_options& options, double timeout_s, std::ostream& out) {
  const bool for_loaded = !options.loaded.empty();
  const std::string& id = for_loaded ? options.loaded : options.gone;
  if (for_loaded == !options.gone.empty()) fail_usage("wait takes either --loaded or --gone");
  if (!namesSession(id)) fail_usage("\"" + id + "\" is no session's ID");
  if (!(timeout_s > 0)) fail_usage("--timeout must be above 0");
  const auto limit_ms = static_cast<long long>(timeout_s * 1000);
  const long long begin_us = platform::monotonic_us();
  while (!(for_loaded ? is_loaded(id) : is_gone(id))) {
    if (platform::monotonic_us() - begin_us >= limit_ms * 1000)
      throw failure(exit_status::timed_out,
                    "time-out: session " + id + " is not " + (for_loaded ? "loaded" : "gone"));
    muro::pause_us(kLook_us);
  }
  out << "session " << id << (for_loaded ? " is loaded\n" : " is gone\n");
  return exit_status::done;
}

}  // namespace

void add_wait(CLI::App& app, invocation& asked) {
  CLI::App* const command =
      app.add_subcommand("wait", "wait until a session is loaded, or all of it gone");
  const auto options = std::make_shared<wait_options>();
  command->add_option("--loaded", options->loaded, "until launchd has a job of this session")
      ->type_name("ID");
  command->add_option("--gone", options->gone, "until nothing of this session is left")
      ->type_name("ID");
  command->footer("Exit status: 0 it is so; 5 not within --timeout; 1 any failure, 2 wrong use.");
  command->callback([&asked, options] {
    asked.chosen = [&asked, options](std::ostream& out, std::ostream&) {
      return wait(*options, asked.timeout_s, out);
    };
  });
}

}  // namespace rnrctl
