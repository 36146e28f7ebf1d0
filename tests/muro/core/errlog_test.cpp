#include "muro/core/errlog.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

TEST(errlog, writes_a_line_before_the_runtime_has_started) {
  const test::temp_dir dir;
  muro::errlog::set_log_file(dir / "log");
  const muro::fmt_dbg log("main");
  for (int i = 0; i < 10; ++i) log.fmt_verbose("hello, who is it there? %1%", "a\nb`");
  muro::errlog::wait_for_flush();
  const std::string text = test::read_file(dir / "log");
  EXPECT_EQ(text.substr(20), " main: hello, who is it there? a`0ab`60\n" + text.substr(60, 20) +
                                 " -          9 - \n");
}
