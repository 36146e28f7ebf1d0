#pragma once

/// Records what is logged while the object lives, for one test:
///
///     const test::log_recorder log;
///     installService();
///     EXPECT_THAT(log.lines(), ElementsAre("installService: Failed to ..."));
///
/// Lines are recorded where the log's thread would write them: in order, escaped, without
/// timestamp. Meanwhile nothing goes to the log file and standard error. One recorder at a time.

#include <string>
#include <vector>

namespace test {

class log_recorder {
 public:
  /// Waits until lines of earlier tests are out, then records.
  log_recorder();
  /// Waits until the recorded lines are out, then lets the log write again.
  ~log_recorder();
  log_recorder(const log_recorder&) = delete;
  log_recorder& operator=(const log_recorder&) = delete;

  /// Every line logged so far; waits until the log's thread has them all.
  std::vector<std::string> lines() const;

  /// The same as one text, each line with a line end.
  std::string text() const;

  /// How often exactly this line was logged so far.
  int count(const std::string& line) const;

  /// Forgets what was logged so far.
  void clear();
};

}  // namespace test
