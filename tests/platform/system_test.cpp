#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "platform/platform.h"
#include "tests/platform/probe.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(executable_path, names_the_running_program) {
  test::probe probe(KORVEL_PROBE, {}, {"PROBE=executable"});
  const std::string answer = probe.rest();
  ASSERT_EQ(answer.substr(0, 1), "=");
  EXPECT_TRUE(std::filesystem::equivalent(answer.substr(1), KORVEL_PROBE));
}

TEST(executable_path, comes_with_blanks_and_utf8) {
  const test::temp_dir folder;
  const std::string program = folder / "a \xC3\xA4 program";
  std::filesystem::copy_file(KORVEL_PROBE, program);
  test::probe probe(program, {}, {"PROBE=executable"});
  EXPECT_EQ(probe.rest(), "=" + program);
}

TEST(executable_path, is_the_old_one_after_the_file_has_gone) {
  const test::temp_dir folder;
  const std::string program = folder / "program";
  std::filesystem::copy_file(KORVEL_PROBE, program);
  test::probe probe(program, {}, {"PROBE=removed executable"});
  EXPECT_EQ(probe.rest(), "=" + program);
  EXPECT_FALSE(std::filesystem::exists(program));
}

TEST(main_loop, outlives_a_handled_signal_and_ends_with_a_deadly_one) {
  test::probe probe(KORVEL_PROBE, {}, {"PROBE=loop"});
  ASSERT_EQ(probe.line(), "ready\n");
  ::kill(probe.pid(), SIGUSR1);
  ASSERT_EQ(probe.line(), "signal\n");
  ::kill(probe.pid(), SIGTERM);
  EXPECT_EQ(probe.rest(), "");
  const int status = probe.wait();
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(thread_number, is_stable_and_one_threads_own) {
  std::uint64_t other = 0;
  std::thread([&] { other = platform::thread_number(); }).join();
  EXPECT_NE(platform::thread_number(), 0U);
  EXPECT_EQ(platform::thread_number(), platform::thread_number());
  EXPECT_NE(platform::thread_number(), other);
}

TEST(autorelease_pool, nests) {
  const platform::autorelease_pool outer;
  for (int i = 0; i < 3; ++i) const platform::autorelease_pool inner;
}

TEST(older_version_selector, leaves_the_value_alone_where_it_has_no_answer) {
  int value = 42;
  EXPECT_FALSE(platform::older_version_selector(0, value));
  EXPECT_EQ(value, 42);
}

}  // namespace
