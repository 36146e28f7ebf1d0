#pragma once

/// The tool's commands: described once, to a reader of words that makes from it the help, the
/// checks on wrong use and the completions of shells.
///
/// A command stands in a file of its own (or with its kin), which has one function `add_...` that
/// describes it to the reader: name, words, options, and what to do when it is asked. All of them are
/// listed in `add_commands`.

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "tools/rnrctl/client.h"

namespace CLI {
class App;
}

namespace rnrctl {

inline constexpr const char* kToolVersion = "1.0.0";

/// What the words have asked for. It writes its answer to `out`, complaints that do not end it to
/// `err`, and gives the status to end with. Throws `failure`.
using action = std::function<exit_status(std::ostream& out, std::ostream& err)>;

/// What a command needs while its words are read, and afterwards while it runs; made anew for each
/// call of the tool and never moved, since the reader and the actions keep pointers into it.
struct invocation {
  std::string endpoint = "korvel_helper";
  double timeout_s = 60;  ///< above the helper's own limit for a client that stays silent
  action chosen;          ///< empty until the words have been read
};

/// Describes every command to `app`. Each `add_...` keeps references to both.
void add_commands(CLI::App& app, invocation& asked);

void add_requests(CLI::App& app, invocation& asked);  ///< register, resign, ping
void add_explain(CLI::App& app, invocation& asked);
void add_log(CLI::App& app, invocation& asked);
void add_status(CLI::App& app, invocation& asked);
void add_doctor(CLI::App& app, invocation& asked);
void add_sessions(CLI::App& app, invocation& asked);
void add_plan(CLI::App& app, invocation& asked);
void add_wait(CLI::App& app, invocation& asked);
void add_bundle(CLI::App& app, invocation& asked);
void add_completion(CLI::App& app, invocation& asked);

/// Throws `failure` with `wrong_use`: `line`, and where help is to be had.
[[noreturn]] void fail_usage(const std::string& line);

/// The whole tool but for starting the runtime: reads `words` (without the program's name), does
/// what they ask for, and tells a failure in one line on `err`.
exit_status rnrctl_main(const std::vector<std::string>& words, std::ostream& out,
                        std::ostream& err);

}  // namespace rnrctl
