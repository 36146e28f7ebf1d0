#pragma once

/// The C functions of macOS that platform/darwin calls, as fakes on Linux. Untouched they answer as
/// a Mac does, so that the seam's contract can run on them: the version file is read, the path of
/// the executable is that of the start, the run loop never ends. A test may script one answer, and
/// sees the calls and what became of every CoreFoundation object.
///
/// One thread at a time; `reset` before each test.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fake {

struct mac {
  /// Functions by name that shall fail, or do what the comment beside their fake says.
  std::set<std::string> failing;

  /// Every call with its arguments as text, in order.
  std::vector<std::string> calls;

  /// CoreFoundation objects made and not yet released.
  int live_objects = 0;
  /// How often something was released that was not the caller's to release, or no more.
  int wrong_releases = 0;

  std::optional<std::string> executable_path;  ///< instead of the real one
  bool run_loop_ends = false;

  std::int32_t session_status = 0;
  std::uint32_t session_id = 100021;
  std::uint32_t session_attributes = 0x6030;

  /// Gestalt's answers; other selectors are unknown.
  std::map<std::uint32_t, std::int32_t> selectors;
};

/// The one Mac of this process.
mac& world();

/// Forgets scripts, calls and counts.
void reset();

}  // namespace fake
