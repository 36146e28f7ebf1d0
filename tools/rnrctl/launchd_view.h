#pragma once

/// What launchd says of the helper's jobs, through launchctl(1). Its output is made for people and
/// differs between releases, so as little as can be is read of it: the last word of each line of
/// `list`, and `"LABEL" => true` or `disabled` in `print-disabled`. A call that fails, or that takes
/// longer than five seconds, leaves its part out and a note in its place.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/rnrctl/survey.h"

namespace rnrctl {

struct launchd_view {
  std::map<std::string, std::set<std::string>> loaded;    ///< label to domains
  std::map<std::string, std::set<std::string>> disabled;  ///< label to domains
  bool known = false;                                     ///< the system's domain could be asked
  std::vector<std::string> notes;
};

/// Asks for the system's domain and that of every user who is logged in. Root only: for others all
/// is not known, and a note says so.
launchd_view ask_launchd(const std::vector<user_session>& users);

/// The labels in what `launchctl list` prints.
std::set<std::string> labels_in_list(const std::string& text);

/// The labels that `launchctl print-disabled` calls disabled.
std::set<std::string> labels_disabled(const std::string& text);

/// The same from the overrides file of releases before 10.10 (XML).
std::set<std::string> labels_overridden(const std::string& xml);

}  // namespace rnrctl
