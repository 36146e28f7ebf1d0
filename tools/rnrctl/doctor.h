#pragma once

/// Why a session does not come back: findings from what the survey saw.

#include <string>
#include <vector>

#include "tools/rnrctl/survey.h"

namespace rnrctl {

/// In rising order; the numbers are what `rnrctl doctor` ends with, less ten.
enum class severity { note, warning, error };

/// One thing that is not as it should be.
struct finding {
  std::string name;  ///< stable, for scripts: "job-file-mode"
  severity how_bad;
  std::string id;                   ///< the session; empty: the shared helper, or the Mac
  std::string seen;                 ///< what was seen
  std::string means;                ///< what follows from it
  std::vector<std::string> advice;  ///< what to do: shell commands for root, or plain words
};

/// The findings, errors first. With `security` also those on what others may change; with an ID only
/// that session's and those of the whole Mac. Their names are listed in rnrctl(8).
std::vector<finding> diagnose(const survey_result& all, bool security, const std::string& id = "");

/// 0 when there are none, else 10, 11 or 12 for the worst.
int status_of(const std::vector<finding>& findings);

}  // namespace rnrctl
