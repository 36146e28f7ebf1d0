#pragma once

/// What the tool can be asked to do, read from its words and done.

#include <ostream>
#include <string>
#include <vector>

#include "tools/rnrctl/client.h"

namespace rnrctl {

enum class action { none, register_session, resign_session, ping };

/// One call of the tool, as the words asked for it.
struct invocation {
  action asked = action::none;
  std::string file;  ///< as given; register and resign
  std::string endpoint = "korvel_helper";
  double timeout_s = 60;  ///< above the helper's own limit for a client that stays silent
};

/// The invocation that `words` (without the program's name) ask for. With `--help` or `--version`
/// the text is put into `notice` and the action is `none`. Throws `failure` with `wrong_use`.
invocation parse(const std::vector<std::string>& words, std::string& notice);

/// `path` as the helper has to hear it: absolute. Links are kept as they are, because the ID is in
/// the name that was given, not in the name of what it points at.
std::string absolute_path(const std::string& path);

/// Does what was asked and tells it on `out` in one line. Throws `failure`.
void run(const invocation& asked, std::ostream& out);

/// The whole tool but for starting the runtime: `parse`, `run`, and failures as one line on `err`.
exit_status rnrctl_main(const std::vector<std::string>& words, std::ostream& out,
                        std::ostream& err);

}  // namespace rnrctl
