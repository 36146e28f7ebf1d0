#include "muro/core/errlog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/sys/xfile.h"
#include "platform/platform.h"
#include "tests/muro/core/log_fixture.h"
#include "tests/support/log_recorder.h"

namespace {

using muro::errlog;
using muro::fmt_dbg;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class errlog_test : public test::log_test {
 protected:
  errlog_test() { seen.clear(); }

  static void log(const char* name, const std::string& text, int level = 0) {
    errlog(name).log(level, text.data(), text.size());
  }

  static void see(const char* text, std::size_t length) { seen.emplace_back(text, length); }

  static inline std::vector<std::string> seen;
};

TEST_F(errlog_test, line_is_timestamp_name_and_text) {
  log("ipc_communicator", "exception");
  EXPECT_EQ(file(), "2024-02-29T12:00:00Z ipc_communicator: exception\n");
}

TEST_F(errlog_test, without_a_name_the_text_stands_alone) {
  log("", "bare");
  log(nullptr, "bare too");
  EXPECT_EQ(file(), line("bare") + line("bare too"));
}

TEST_F(errlog_test, flag_changes_nothing) {
  errlog("main", true).log(0, "x", 1);
  EXPECT_EQ(file(), line("main: x"));
}

TEST_F(errlog_test, length_ends_the_text) {
  errlog("main").log(0, "abc", 2);
  errlog("main").log(0, "a\0c", 3);
  errlog("main").log(0, "abc", 0);
  EXPECT_EQ(file(), line("main: ab") + line("main: a`00c") + line("main: "));
}

TEST_F(errlog_test, lines_above_the_level_are_dropped) {
  log("main", "one", 1);
  log("main", "zero", 0);
  log("main", "below", -1);
  EXPECT_EQ(file(), line("main: zero") + line("main: below"));
}

TEST_F(errlog_test, level_may_be_raised_and_lowered) {
  errlog::set_log_level(2);
  log("main", "two", 2);
  log("main", "three", 3);
  errlog::set_log_level(-1);
  fmt_dbg("main").fmt_verbose("zero");
  EXPECT_EQ(file(), line("main: two"));
}

TEST_F(errlog_test, text_is_escaped) {
  log("main", "a\nb`c\xc3\xa9");
  EXPECT_EQ(file(), line("main: a`0ab`60c\xc3\xa9"));
}

TEST_F(errlog_test, name_is_escaped_too) {
  log("ma\nin", "x");
  EXPECT_EQ(file(), line("ma`0ain: x"));
}

// fmt_verbose, with the argument kinds that the program uses.

TEST_F(errlog_test, fmt_verbose_fills_a_template_at_level_0) {
  const fmt_dbg log("main");
  const char* const pointer = "pointer";
  const char* const nothing = nullptr;
  const char array[] = "array";
  const std::string string = "string";
  using raw = muro::raw_endian<unsigned long long, true>;
  log.fmt_verbose("nothing");
  log.fmt_verbose("%1%", pointer);
  log.fmt_verbose("%1%", nothing);
  log.fmt_verbose("%1% %2%", string, string);
  log.fmt_verbose("%1% %2%", pointer, array);
  log.fmt_verbose("%1%", true);
  log.fmt_verbose("%1%", -1);
  log.fmt_verbose("%1% %2% %3% %4%", 501U, false, string, true);
  log.fmt_verbose("%1% %2% %3%", raw(1), raw(2), raw(3));
  EXPECT_EQ(file(), line("main: nothing") + line("main: pointer") + line("main: (null)") +
                        line("main: string string") + line("main: pointer array") +
                        line("main: 1") + line("main: -1") + line("main: 501 0 string 1") +
                        line("main: 1 2 3"));
}

// Process and thread in front of the line.

TEST_F(errlog_test, report_level_1_names_the_process) {
  muro::g_run_report_level = 1;
  log("main", "x");
  EXPECT_EQ(file(), line("[" + std::to_string(::getpid()) + "] main: x"));
}

TEST_F(errlog_test, report_level_2_names_process_and_logging_thread) {
  muro::g_run_report_level = 2;
  std::uint64_t number = 0;
  std::thread([&number] {
    number = platform::thread_number();
    log("main", "x");
  }).join();
  EXPECT_NE(number, platform::thread_number());
  EXPECT_EQ(file(),
            line("[" + std::to_string(::getpid()) + ":" + std::to_string(number) + "] main: x"));
}

TEST_F(errlog_test, other_report_levels_name_nothing) {
  for (const int level : {-1, 0, 3}) {
    muro::g_run_report_level = level;
    log("main", "x");
  }
  EXPECT_EQ(file(), line("main: x") + line("main: x") + line("main: x"));
}

// Filter and hook.

TEST_F(errlog_test, filter_drops_a_line_by_returning_0) {
  errlog::set_log_filter([](const char* text, std::size_t length) {
    see(text, length);
    return std::string(text, length) == "main: no" ? 0 : -1;
  });
  errlog::set_log_line_hook(see);
  muro::g_run_report_level = 1;
  log("main", "no");
  EXPECT_THAT(seen, ElementsAre("main: no")) << "the hook saw a dropped line";
  log("main", "yes");
  EXPECT_THAT(seen, ElementsAre("main: no", "main: yes", "main: yes"));
  EXPECT_THAT(file(), HasSubstr("] main: yes\n"));
  EXPECT_THAT(file(), Not(HasSubstr("main: no")));
}

TEST_F(errlog_test, filter_is_not_asked_for_lines_above_the_level) {
  errlog::set_log_filter([](const char* text, std::size_t length) { return see(text, length), 1; });
  log("main", "x", 1);
  EXPECT_THAT(seen, IsEmpty());
}

TEST_F(errlog_test, filter_that_throws_keeps_the_line) {
  errlog::set_log_filter([](const char*, std::size_t) -> int { throw muro::exception("filter"); });
  log("main", "x");
  EXPECT_EQ(file(), line("main: x"));
}

TEST_F(errlog_test, hook_sees_a_line_after_it_is_queued) {
  static std::string in_file;
  errlog::set_log_line_hook([](const char* text, std::size_t length) {
    see(text, length);
    errlog::wait_for_flush();
    in_file = test::read_file(muro::log_file_name());
  });
  log("main", "a\nb");
  EXPECT_THAT(seen, ElementsAre("main: a\nb"));
  EXPECT_EQ(in_file, line("main: a`0ab"));
}

TEST_F(errlog_test, hook_that_throws_is_let_pass) {
  errlog::set_log_line_hook([](const char*, std::size_t) { throw 1; });
  log("main", "x");
  EXPECT_EQ(file(), line("main: x"));
}

// The log file.

TEST_F(errlog_test, file_name_is_expanded) {
  errlog::set_log_file(dir / "missing/../x/log");
  EXPECT_EQ(muro::log_file_name(), dir / "missing/../x/log");
  test::write_file(dir / "there", "");
  errlog::set_log_file(path() + "/../there");
  EXPECT_EQ(muro::log_file_name(), path() + "/../there") << "no folder `log` to come back from";
  errlog::set_log_file(dir.path() + "/./there");
  EXPECT_EQ(muro::log_file_name(), dir / "there");
}

TEST_F(errlog_test, name_that_cannot_be_expanded_leaves_the_old_one) {
  const auto story = [] {
    const test::temp_dir gone_folder;
    errlog::set_log_file("/before");
    CHECK_THAT(::chdir(gone_folder.path().c_str()) == 0 && ::rmdir(".") != 0);
    CHECK_THAT(::rmdir(gone_folder.path().c_str()) == 0);
    errlog::set_log_file("relative");
    CHECK_THAT(muro::log_file_name() == "/before");
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(errlog_test, new_file_name_takes_effect_with_the_next_batch) {
  log_and_flush("first");
  errlog::set_log_file(dir / "other");
  log_and_flush("second");
  EXPECT_EQ(file(), line("main: first"));
  EXPECT_EQ(test::read_file(dir / "other"), line("main: second"));
}

// Lines that a caller has formatted.

std::vector<const char*> released;
void give_back(const char* data) {
  released.push_back(data);
}

TEST_F(errlog_test, finished_line_is_written_as_it_is) {
  released.clear();
  const std::string data = "12:00 a`b\tc\n";
  errlog::log_line_direct(data.data(), data.size(), 5, give_back);
  EXPECT_EQ(file(), data);
  EXPECT_THAT(released, ElementsAre(data.data()));
}

TEST_F(errlog_test, finished_line_passes_level_filter_hook_and_report_prefix) {
  errlog::set_log_level(-1);
  errlog::set_log_filter([](const char*, std::size_t) { return 0; });
  errlog::set_log_line_hook(see);
  muro::g_run_report_level = 1;
  errlog::log_line_direct("12:00 x\n", 8, 5, nullptr);
  EXPECT_EQ(file(), "12:00 x\n");
  EXPECT_THAT(seen, IsEmpty());
}

TEST_F(errlog_test, host_takes_finished_lines_over) {
  static std::string taken;
  released.clear();
  muro::x_errlog_log_line_direct = [](const char* data, std::size_t length, std::size_t prefix,
                                      void (*release)(const char*)) {
    taken = std::string(data, length) + std::to_string(prefix);
    release(data);
  };
  errlog::log_line_direct("12:00 x\n", 8, 5, give_back);
  EXPECT_EQ(taken, "12:00 x\n5");
  EXPECT_EQ(released.size(), 1U);
  EXPECT_EQ(file(), "");
}

// Time.

TEST_F(errlog_test, current_timestamp_is_the_time_in_utc) {
  EXPECT_EQ(errlog::current_timestamp(), kStart);
  now_s = 5;
  EXPECT_EQ(errlog::current_timestamp(), "1970-01-01T00:00:05Z");
}

TEST_F(errlog_test, time_that_cannot_be_read_is_n) {
  now_s = -1;
  EXPECT_EQ(errlog::current_timestamp(), "N");
  log("main", "x");
  EXPECT_EQ(file(), "N main: x\n");
}

// errno, which a caller may want to log next.

TEST_F(errlog_test, nothing_here_changes_errno) {
  errlog::set_log_filter([](const char*, std::size_t) { return errno = EDOM; });
  errlog::set_log_line_hook([](const char*, std::size_t) { errno = EDOM; });
  now_s = -1;
  errno = EXDEV;
  log("main", std::string(1000, 'x'));
  EXPECT_EQ(errno, EXDEV);
  errlog::log_line_direct("12:00 x\n", 8, 5, nullptr);
  EXPECT_EQ(errno, EXDEV);
  errlog::set_log_file(dir / "missing/log");
  EXPECT_EQ(errno, EXDEV);
  errlog::wait_for_flush();
  EXPECT_EQ(errno, EXDEV);
  errlog::current_timestamp();
  EXPECT_EQ(errno, EXDEV);
}

// The size keepers as members.

TEST_F(errlog_test, size_keepers_go_by_the_settings) {
  test::write_file(path(), "0123456789");
  errlog::set_log_cut(8);
  muro::xfile cut(path(), muro::xfile::read_write, true);
  std::fseek(cut, 0, SEEK_END);
  errlog::check_log_cut(&cut);
  cut.close();
  EXPECT_EQ(test::read_file(path()), "");
  errlog::set_log_rotate(1, 1);
  test::write_file(path(), "0123456789");
  muro::xfile rotated(path(), muro::xfile::read_write, true);
  std::fseek(rotated, 0, SEEK_END);
  errlog::check_log_rotate(&rotated);
  EXPECT_FALSE(rotated);
  EXPECT_EQ(test::read_file(path() + ".0"), "0123456789");
}

// The recorder that other tests use.

TEST(log_recorder, records_lines_instead_of_writing_them) {
  testing::internal::CaptureStderr();
  {
    const test::log_recorder recorder;
    fmt_dbg("main").fmt_verbose("a\nb");
    EXPECT_THAT(recorder.lines(), ElementsAre("main: a`0ab"));
    EXPECT_EQ(recorder.text(), "main: a`0ab\n");
    EXPECT_EQ(recorder.count("main: a`0ab"), 1);
    EXPECT_EQ(recorder.count("main: a"), 0);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(log_recorder, forgets_on_request) {
  test::log_recorder recorder;
  fmt_dbg("main").fmt_verbose("x");
  recorder.clear();
  fmt_dbg("main").fmt_verbose("y");
  EXPECT_THAT(recorder.lines(), ElementsAre("main: y"));
}

TEST(log_recorder, there_is_one_at_a_time) {
  const test::log_recorder recorder;
  EXPECT_THROW(test::log_recorder(), std::logic_error);
}

}  // namespace
