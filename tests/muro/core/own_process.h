#pragma once

/// Tests that need a process of their own, because what they look at happens once in a process or
/// ends it. The statement runs in a process executed anew; CHECK_THAT tells what is wrong there.
///
///     TEST_F(story_test, happens_once) {
///       const auto story = [] { CHECK_THAT(first() && !second()); };
///       EXPECT_IN_OWN_PROCESS(story(), "");
///     }

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "muro/core/errlog.h"
#include "tests/support/temp_dir.h"

namespace test {

inline int wrong_checks = 0;

inline void check(bool ok, const std::string& what) {
  if (ok) return;
  ++wrong_checks;
  std::fprintf(stderr, "WRONG: %s\n", what.c_str());
}

[[noreturn]] inline void finish_process() {
  muro::errlog::wait_for_flush();
  std::_Exit(wrong_checks == 0 ? 0 : 1);
}

/// The temporary folders of those processes, which end without destructors, lie in one of the
/// test's own.
class own_process_test : public testing::Test {
 protected:
  own_process_test() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::setenv("TMPDIR", scratch_.path().c_str(), 1);
  }
  ~own_process_test() override { ::setenv("TMPDIR", before_.c_str(), 1); }

 private:
  const std::string before_ = std::filesystem::temp_directory_path();
  const temp_dir scratch_;
};

}  // namespace test

#define CHECK_THAT(condition) test::check(condition, #condition)

/// `errors` matches what the process writes to standard error; the log is flushed at its end.
#define EXPECT_IN_OWN_PROCESS(statement, errors) \
  EXPECT_EXIT((statement, test::finish_process()), testing::ExitedWithCode(0), errors)
