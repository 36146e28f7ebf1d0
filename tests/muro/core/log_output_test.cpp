#include "muro/core/log_output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "muro/sys/files.h"
#include "tests/muro/core/log_fixture.h"

namespace {

using muro::errlog;
using muro::fmt_dbg;
using testing::ElementsAre;

std::vector<const char*> released;
void give_back(const char* data) {
  released.push_back(data);
}

class log_output_test : public test::log_test {
 protected:
  log_output_test() {
    released.clear();
    sunk.clear();
  }
  static void sink(const char* text, std::size_t length) { sunk.emplace_back(text, length); }

  static void finished(const char* data, std::size_t prefix_length) {
    errlog::log_line_direct(data, std::strlen(data), prefix_length, give_back);
  }

  /// What goes to standard error while `action` runs and the log is flushed.
  template <class Action>
  static std::string stderr_of(Action action) {
    testing::internal::CaptureStderr();
    action();
    errlog::wait_for_flush();
    return testing::internal::GetCapturedStderr();
  }

  /// While each look at the clock takes a second. All that is in front of the last line fills a piece,
  /// with `size` bytes, or a slice.
  static void log_in_one_batch(std::size_t size) {
    muro::x_absolute_time = [] { return ++now_s * 1000; };
    const test::held_dumper one_batch;
    fmt_dbg("").fmt_verbose("a");
    fmt_dbg("").fmt_verbose(std::string(size, 'b'));
    fmt_dbg("").fmt_verbose("c");
  }
  static void expect_one_time_but_for_the_last(const std::string& lines) {
    std::istringstream words(lines);
    std::string a_time, a, b_time, b, c_time, c, more;
    ASSERT_TRUE(words >> a_time >> a >> b_time >> b >> c_time >> c);
    EXPECT_FALSE(words >> more);
    EXPECT_EQ(a + b[0] + c, "abc");
    EXPECT_EQ(a_time, b_time);
    EXPECT_LT(b_time, c_time);
  }

  static std::string marker(int count, const std::string& at = kStart) {
    std::string digits = std::to_string(count);
    return at + " - " + std::string(10 - digits.size(), ' ') + digits + " - \n";
  }

  static inline std::vector<std::string> sunk;
  const std::string message = "a message that is long enough to fold";
};

// Standard error.

TEST_F(log_output_test, lines_are_echoed_with_a_timestamp) {
  errlog::set_log_to_stderr(true);
  EXPECT_EQ(stderr_of([] { fmt_dbg("main").fmt_verbose("a\n"); }), line("main: a`0a"));
}

TEST_F(log_output_test, echo_can_go_without_timestamps) {
  errlog::set_log_to_stderr(true);
  errlog::set_log_stderr_timestamps(false);
  EXPECT_EQ(stderr_of([] { fmt_dbg("main").fmt_verbose("a"); }), "main: a\n");
}

TEST_F(log_output_test, echo_can_be_switched_off) {
  EXPECT_EQ(stderr_of([] { fmt_dbg("main").fmt_verbose("a"); }), "");
  EXPECT_EQ(file(), line("main: a"));
}

TEST_F(log_output_test, lines_that_are_written_at_once_have_one_time_and_their_echo_the_same) {
  errlog::set_log_to_stderr(true);
  const std::string echo = stderr_of([] { log_in_one_batch(70000); });
  EXPECT_EQ(echo, file());
  expect_one_time_but_for_the_last(echo);
}

TEST_F(log_output_test, lines_that_are_echoed_at_once_have_one_time_without_a_file_too) {
  errlog::set_log_to_stderr(true);
  muro::set_log_file_name("");
  expect_one_time_but_for_the_last(
      stderr_of([] { log_in_one_batch(muro::log_slice::kSize - 64); }));
}

TEST_F(log_output_test, echo_without_timestamps_has_the_escaped_texts_beside_a_file_with_them) {
  errlog::set_log_to_stderr(true);
  errlog::set_log_stderr_timestamps(false);
  EXPECT_EQ(stderr_of([] { fmt_dbg("main").fmt_verbose("a\n"); }), "main: a`0a\n");
  EXPECT_EQ(file(), line("main: a`0a"));
}

TEST_F(log_output_test, echo_is_not_folded) {
  errlog::set_log_to_stderr(true);
  const std::string echo = stderr_of([this] {
    for (int i = 0; i < 3; ++i) fmt_dbg("main").fmt_verbose(message);
  });
  EXPECT_EQ(echo, line("main: " + message) + line("main: " + message) + line("main: " + message));
}

TEST_F(log_output_test, finished_lines_are_echoed_unchanged) {
  errlog::set_log_to_stderr(true);
  EXPECT_EQ(stderr_of([] { finished("12:00 a`\n", 5); }), "12:00 a`\n");
}

TEST_F(log_output_test, finished_lines_are_echoed_from_their_message_on_without_timestamps) {
  errlog::set_log_to_stderr(true);
  errlog::set_log_stderr_timestamps(false);
  EXPECT_EQ(stderr_of([] { finished("12:00 message\r\n", 5); }), "message\r\n");
  EXPECT_EQ(stderr_of([] { finished("12:00 ", 5); }), "12:00 ");
  EXPECT_EQ(stderr_of([] { finished("12:00", 9); }), "12:00");
}

TEST_F(log_output_test, long_echo_arrives_whole) {
  errlog::set_log_to_stderr(true);
  std::string expected;
  for (int i = 0; i < 5000; ++i) expected += line("main: " + std::to_string(i) + message);
  const std::string echo = stderr_of([this] {
    for (int i = 0; i < 5000; ++i) fmt_dbg("main").fmt_verbose("%1%%2%", i, message);
  });
  EXPECT_EQ(echo, expected);
}

TEST_F(log_output_test, closed_standard_error_ends_nothing) {
  const auto story = [] {
    int pipe_ends[2];
    CHECK_THAT(::pipe(pipe_ends) == 0);
    const int kept = ::dup(STDERR_FILENO);
    ::dup2(pipe_ends[1], STDERR_FILENO);
    ::close(pipe_ends[0]);
    errlog::set_log_to_stderr(true);
    log_and_flush("into a closed pipe");
    ::close(STDERR_FILENO);
    log_and_flush("into nothing");
    ::dup2(kept, STDERR_FILENO);
    log_and_flush("still here");
  };
  EXPECT_IN_OWN_PROCESS(story(), testing::EndsWith("main: still here\n"));
}

TEST_F(log_output_test, full_standard_error_that_does_not_block_is_given_up) {
  const auto story = [] {
    int pipe_ends[2];
    CHECK_THAT(::pipe(pipe_ends) == 0);
    ::fcntl(pipe_ends[1], F_SETFL, O_NONBLOCK);
    const int kept = ::dup(STDERR_FILENO);
    ::dup2(pipe_ends[1], STDERR_FILENO);
    errlog::set_log_to_stderr(true);
    log_and_flush(std::string(1 << 20, 'x'));
    ::dup2(kept, STDERR_FILENO);
    log_and_flush("still here");
  };
  EXPECT_IN_OWN_PROCESS(story(), testing::EndsWith("main: still here\n"));
}

// A host's sink.

TEST_F(log_output_test, sink_gets_escaped_texts_instead_of_file_and_standard_error) {
  errlog::set_log_direct_sink(sink);
  errlog::set_log_to_stderr(true);
  muro::g_run_report_level = 1;
  EXPECT_EQ(stderr_of([] { fmt_dbg("main").fmt_verbose("a\n"); }), "");
  EXPECT_THAT(sunk, ElementsAre("[" + std::to_string(::getpid()) + "] main: a`0a"));
  EXPECT_FALSE(muro::file_exists(path()));
}

TEST_F(log_output_test, sink_gets_the_messages_of_finished_lines) {
  errlog::set_log_direct_sink(sink);
  finished("12:00 message\r\n\n", 5);
  finished("12:00 ", 5);
  finished("x\r", 7);
  errlog::wait_for_flush();
  EXPECT_THAT(sunk, ElementsAre("message", "12:00 ", "x"));
  EXPECT_EQ(released.size(), 3U);
}

TEST_F(log_output_test, sink_that_throws_does_not_stop_the_lines_behind) {
  errlog::set_log_direct_sink([](const char* text, std::size_t length) {
    sink(text, length);
    throw muro::exception("sink");
  });
  fmt_dbg("main").fmt_verbose("a");
  finished("12:00 b\n", 5);
  errlog::wait_for_flush();
  EXPECT_THAT(sunk, ElementsAre("main: a", "b"));
  EXPECT_EQ(released.size(), 1U);
}

TEST_F(log_output_test, release_that_throws_is_let_pass) {
  errlog::log_line_direct("a\n", 2, 0, [](const char*) { throw 1; });
  log_and_flush("b");
  EXPECT_EQ(file(), "a\n" + line("main: b"));
}

TEST_F(log_output_test, line_is_given_back_when_it_is_in_the_file) {
  static std::string in_file;
  errlog::log_line_direct("12:00 a\n", 8, 5,
                          [](const char*) { in_file = test::read_file(muro::log_file_name()); });
  errlog::wait_for_flush();
  EXPECT_EQ(in_file, "12:00 a\n");
}

// The file.

TEST_F(log_output_test, file_is_made_when_missing_and_added_to_when_there) {
  log_and_flush("first");
  EXPECT_EQ(file(), line("main: first"));
  test::write_file(path(), "from an earlier run\n");
  log_and_flush("second");
  EXPECT_EQ(file(), "from an earlier run\n" + line("main: second"));
}

TEST_F(log_output_test, file_that_cannot_be_opened_leaves_the_echo) {
  errlog::set_log_file("/dev/null/log");
  errlog::set_log_to_stderr(true);
  EXPECT_EQ(stderr_of([] { fmt_dbg("main").fmt_verbose("a"); }), line("main: a"));
}

TEST_F(log_output_test, no_file_name_means_no_file) {
  muro::set_log_file_name("");
  errlog::set_log_to_stderr(true);
  EXPECT_EQ(stderr_of([] { fmt_dbg("main").fmt_verbose("a"); }), line("main: a"));
  EXPECT_FALSE(muro::file_exists(path()));
}

TEST_F(log_output_test, flush_without_lines_makes_no_file) {
  log_and_flush("first");
  ::unlink(path().c_str());
  errlog::wait_for_flush();
  EXPECT_FALSE(muro::file_exists(path()));
}

TEST_F(log_output_test, appends_of_another_process_stay) {
  log_and_flush("one");
  std::ofstream(path(), std::ios::app) << "other\n";
  log_and_flush("two");
  EXPECT_EQ(file(), line("main: one") + "other\n" + line("main: two"));
}

TEST_F(log_output_test, disk_that_is_full_loses_lines_and_nothing_else) {
  const auto story = [] {
    const test::temp_dir own;
    errlog::set_log_file(own / "log");
    errlog::set_log_to_stderr(false);
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{100, RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    log_and_flush(std::string(200, 'x'));
    limit.rlim_cur = RLIM_INFINITY;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const std::size_t broken = test::read_file(own / "log").size();
    CHECK_THAT(broken <= 100);
    log_and_flush(std::string(200, 'x'));
    // Written in full: nobody could know whether the first one is in the file.
    CHECK_THAT(test::read_file(own / "log").size() == broken + 228);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

// Folding in the file.

TEST_F(log_output_test, ten_equal_messages_are_a_line_and_a_marker_of_9) {
  for (int i = 0; i < 10; ++i) fmt_dbg("main").fmt_verbose(message);
  EXPECT_EQ(file(), line("main: " + message) + marker(9));
}

TEST_F(log_output_test, folding_goes_on_over_batches_with_the_time_of_the_last) {
  for (int i = 0; i < 4; ++i) {
    now_s = kStart_s + i;
    log_and_flush(message);
    const std::string at = "2024-02-29T12:00:0" + std::to_string(i) + "Z";
    EXPECT_EQ(file(), line("main: " + message) + (i > 0 ? marker(i, at) : ""));
  }
  log_and_flush("short");
  EXPECT_THAT(file(), testing::EndsWith(" - \n2024-02-29T12:00:03Z main: short\n"));
}

TEST_F(log_output_test, another_line_between_ends_the_folding) {
  for (const char* text : {"", "", "!", "", ""}) fmt_dbg("main").fmt_verbose(message + text);
  EXPECT_EQ(file(), line("main: " + message) + marker(1) + line("main: " + message + "!") +
                        line("main: " + message) + marker(1));
}

TEST_F(log_output_test, short_lines_are_not_folded) {
  // Blank, text and line end make 16 bytes; 17 would fold.
  for (int i = 0; i < 3; ++i) fmt_dbg("").fmt_verbose("fourteen bytes");
  EXPECT_EQ(file(), line("fourteen bytes") + line("fourteen bytes") + line("fourteen bytes"));
}

TEST_F(log_output_test, shortest_line_that_folds) {
  for (int i = 0; i < 3; ++i) fmt_dbg("").fmt_verbose("fifteen bytes..");
  EXPECT_EQ(file(), line("fifteen bytes..") + marker(2));
}

TEST_F(log_output_test, finished_lines_fold_by_their_own_prefix) {
  finished("12:00 a message that is long\n", 5);
  finished("12:01 a message that is long\n", 5);
  finished("12:02 a message that is long\n", 5);
  EXPECT_EQ(file(), "12:00 a message that is long\n12:02 -          2 - \n");
}

TEST_F(log_output_test, finished_line_and_text_fold_together_when_they_are_equal) {
  fmt_dbg("").fmt_verbose(message);
  const std::string same = "9999-99-99T99:99:99Z " + message + "\n";
  finished(same.c_str(), 20);
  EXPECT_EQ(file(), line(message) + marker(1, "9999-99-99T99:99:99Z"));
}

TEST_F(log_output_test, lines_larger_than_a_piece_fold_too) {
  const std::string large(100000, 'x');
  for (int i = 0; i < 4; ++i) fmt_dbg("").fmt_verbose(large);
  EXPECT_EQ(file(), line(large) + marker(3));
}

TEST_F(log_output_test, another_file_gets_the_line_before_its_marker) {
  for (int i = 0; i < 3; ++i) log_and_flush(message);
  test::write_file(dir / "other", "of an earlier run, longer than a marker is\n");
  errlog::set_log_file(dir / "other");
  log_and_flush(message);
  EXPECT_EQ(test::read_file(dir / "other"),
            "of an earlier run, longer than a marker is\n" + line("main: " + message));
}

TEST_F(log_output_test, marker_overwrites_the_end_of_the_file_whoever_wrote_it) {
  for (int i = 0; i < 3; ++i) log_and_flush(message);
  const std::string others(37, '#');
  std::ofstream(path(), std::ios::app) << others;
  log_and_flush(message);
  EXPECT_EQ(file(), line("main: " + message) + marker(2) + marker(3));
}

TEST_F(log_output_test, file_that_was_emptied_gets_the_line_before_its_marker) {
  for (int i = 0; i < 3; ++i) log_and_flush(message);
  test::write_file(path(), "short\n");
  log_and_flush(message);
  EXPECT_EQ(file(), "short\n" + line("main: " + message));
}

// Keeping small.

TEST_F(log_output_test, file_is_rotated_when_it_reaches_the_size) {
  errlog::set_log_rotate(0x100000, 1);
  test::write_file(path(), std::string(0x100000 - 29, 'x'));
  test::write_file(path() + ".0", "old");
  log_and_flush("");
  EXPECT_EQ(file().size(), 0x100000U - 1) << "one byte is missing";
  EXPECT_EQ(test::read_file(path() + ".0").size(), 3U);
  test::write_file(path(), std::string(0x100000 - 28, 'x'));
  log_and_flush("");
  EXPECT_FALSE(muro::file_exists(path()));
  EXPECT_EQ(test::read_file(path() + ".0").size(), 0x100000U);
  log_and_flush("new");
  EXPECT_EQ(file(), line("main: new"));
}

TEST_F(log_output_test, rotation_comes_after_the_whole_batch) {
  errlog::set_log_rotate(1, 2);
  log_and_flush("a");
  {
    const test::held_dumper one_batch;
    fmt_dbg("").fmt_verbose("b");
    fmt_dbg("").fmt_verbose("c");
  }
  errlog::wait_for_flush();
  EXPECT_EQ(test::read_file(path() + ".1"), line("main: a"));
  EXPECT_EQ(test::read_file(path() + ".0"), line("b") + line("c"));
}

TEST_F(log_output_test, size_or_count_of_0_means_no_rotation) {
  errlog::set_log_rotate(0, 1);
  log_and_flush("a");
  errlog::set_log_rotate(1, 0);
  log_and_flush("b");
  EXPECT_EQ(file(), line("main: a") + line("main: b"));
}

TEST_F(log_output_test, counting_goes_on_in_the_file_after_a_rotation) {
  errlog::set_log_rotate(1, 1);
  log_and_flush(message);
  EXPECT_EQ(test::read_file(path() + ".0"), line("main: " + message));
  log_and_flush(message);
  EXPECT_EQ(test::read_file(path() + ".0"), marker(1));
  log_and_flush(message);
  EXPECT_EQ(test::read_file(path() + ".0"), marker(2));
}

TEST_F(log_output_test, cutting_goes_before_rotating) {
  errlog::set_log_rotate(1, 1);
  errlog::set_log_cut(70);
  log_and_flush("first line, long");
  log_and_flush("second");
  EXPECT_FALSE(muro::file_exists(path() + ".0"));
  EXPECT_EQ(file(), "\n");
}

TEST_F(log_output_test, line_after_a_cut_is_written_in_full) {
  errlog::set_log_cut(150);
  for (int i = 0; i < 6; ++i) log_and_flush(message);
  const std::string before = file();
  errlog::set_log_cut(before.size() - 1);
  log_and_flush(message);
  errlog::set_log_cut(0);
  const std::string after = file();
  log_and_flush(message);
  EXPECT_EQ(file(), after + line("main: " + message));
}

/// Every line placed by itself, as the rule has it.
class obvious_file {
 public:
  void write(const std::string& text, std::size_t prefix) {
    const muro::log_folder::output out = folder_.fold(text, prefix);
    content_.erase(content_.size() - out.step_back);
    content_ += out.bytes;
  }
  const std::string& content() const { return content_; }

 private:
  muro::log_folder folder_;
  std::string content_;
};

TEST_F(log_output_test, gathering_writes_what_single_writes_would) {
  std::mt19937 random(3);
  muro::log_memory memory;
  obvious_file obvious;
  for (int batch = 0; batch < 50; ++batch) {
    muro::log_file file(path(), memory);
    for (std::size_t lines = random() % 40; lines > 0; --lines) {
      const std::size_t size = random() % 20 == 0 ? 70000 : 20 + random() % 2;
      const std::string text = "ab" + std::string(size, static_cast<char>('a' + random() % 2));
      test::write_line(file, text, 2);
      obvious.write(text, 2);
    }
  }
  EXPECT_EQ(test::read_file(path()), obvious.content());
}

}  // namespace
