#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "muro/core/log_output.h"
#include "muro/core/log_shrink.h"
#include "muro/sys/files.h"
#include "tests/muro/core/log_fixture.h"
#include "tests/muro/sys/replaced.h"

namespace {

using muro::errlog;
using muro::log_file;

/// A log file that is opened, written and closed by the test, with a hand in the middle.
class log_file_test : public test::log_test {
 protected:
  // What is larger than a piece is in the file before the next line.
  static inline const std::string large = "P " + std::string(70000, 'x') + "\n";
  static inline const std::string repeated = "P a line that is long enough to fold\n";

  static std::string marker(int count) {
    std::string digits = std::to_string(count);
    return "P - " + std::string(10 - digits.size(), ' ') + digits + " - \n";
  }

  /// One batch of lines with prefixes of one byte.
  void batch(const std::vector<std::string>& lines) {
    log_file file(path(), memory);
    for (const std::string& text : lines) test::write_line(file, text, 1);
  }

  std::string content() const { return test::read_file(path()); }

  muro::log_memory memory;
};

TEST_F(log_file_test, line_that_is_not_ended_is_dropped) {
  {
    log_file file(path(), memory);
    test::write_line(file, repeated, 1);
    file.piece() += "P a line for which there was no mem";
  }
  EXPECT_EQ(content(), repeated);
  batch({repeated});
  EXPECT_EQ(content(), repeated + marker(1));
}

// Between batches.

TEST_F(log_file_test, file_that_was_removed_is_made_anew_with_the_line_in_full) {
  batch({repeated, repeated});
  ::unlink(path().c_str());
  batch({repeated});
  EXPECT_EQ(content(), repeated);
}

TEST_F(log_file_test, file_that_was_replaced_keeps_its_end) {
  batch({repeated, repeated});
  const std::string others(1000, '#');
  test::write_file(dir / "other", others);
  ASSERT_EQ(::rename((dir / "other").c_str(), path().c_str()), 0);
  batch({repeated, repeated});
  EXPECT_EQ(content(), others + repeated + marker(1));
}

TEST_F(log_file_test, file_that_was_shortened_keeps_what_is_left) {
  const std::string older(100, '#');
  batch({"P" + older + "\n", repeated, repeated});
  ASSERT_EQ(::truncate(path().c_str(), 100), 0);
  batch({repeated});
  EXPECT_EQ(content(), "P" + older.substr(0, 99) + repeated);
}

TEST_F(log_file_test, marker_after_a_rotation_does_not_overwrite_what_others_wrote_since) {
  errlog::set_log_rotate(1, 1);
  batch({repeated, repeated});
  ASSERT_FALSE(muro::file_exists(path()));
  errlog::set_log_rotate(0, 0);
  const std::string others(100, '#');
  test::write_file(path(), others);
  batch({repeated});
  EXPECT_EQ(content(), others + marker(2));
  batch({repeated});
  EXPECT_EQ(content(), others + marker(3));
}

// In the middle of a batch.

TEST_F(log_file_test, marker_does_not_overwrite_an_older_line_of_a_file_that_is_shortened) {
  batch({large, large});
  ASSERT_EQ(content(), large + marker(1));
  {
    log_file file(path(), memory);
    test::write_line(file, large, 1);
    ASSERT_EQ(::truncate(path().c_str(), 1000), 0);
  }
  EXPECT_EQ(content(), large.substr(0, 1000) + marker(2));
}

TEST_F(log_file_test, emptied_file_is_gone_on_with_at_its_new_end) {
  {
    log_file file(path(), memory);
    test::write_line(file, large, 1);
    ASSERT_EQ(::truncate(path().c_str(), 0), 0);
    test::write_line(file, repeated, 1);
  }
  EXPECT_EQ(content(), repeated) << "no hole";
}

TEST_F(log_file_test, file_that_another_process_rotated_is_not_rotated_twice) {
  errlog::set_log_rotate(1, 1);
  {
    log_file file(path(), memory);
    test::write_line(file, large, 1);
    ASSERT_EQ(::rename(path().c_str(), (path() + ".0").c_str()), 0);
    test::write_file(path(), "theirs\n");
  }
  EXPECT_EQ(content(), "theirs\n");
  EXPECT_EQ(test::read_file(path() + ".0"), large);
  batch({"P next\n"});
  EXPECT_EQ(test::read_file(path() + ".0"), "theirs\nP next\n");
}

TEST_F(log_file_test, file_that_was_removed_is_neither_rotated_nor_made_anew) {
  errlog::set_log_rotate(1, 1);
  test::write_file(path() + ".0", "kept\n");
  {
    log_file file(path(), memory);
    test::write_line(file, large, 1);
    ::unlink(path().c_str());
  }
  EXPECT_FALSE(muro::file_exists(path()));
  EXPECT_EQ(test::read_file(path() + ".0"), "kept\n");
}

TEST_F(log_file_test, folder_that_is_removed_stays_removed) {
  const std::string folder = dir / "going";
  const std::string name = folder + "/log";
  ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
  errlog::set_log_rotate(1, 1);
  {
    log_file file(name, memory);
    test::write_line(file, large, 1);
    muro::delete_recursive(folder);
    test::write_line(file, large, 1);
  }
  EXPECT_FALSE(log_file(name, memory).is_open());
  EXPECT_FALSE(muro::file_exists(folder));
}

TEST_F(log_file_test, file_that_was_replaced_is_not_cut_by_the_length_of_another) {
  errlog::set_log_cut(1000);
  {
    log_file file(path(), memory);
    test::write_line(file, large, 1);
    ::unlink(path().c_str());
    test::write_file(path(), "theirs\n");
  }
  EXPECT_EQ(content(), "theirs\n");
}

TEST_F(log_file_test, cut_leaves_a_pipe_under_the_name_alone) {
  errlog::set_log_cut(1000);
  {
    log_file file(path(), memory);
    test::write_line(file, large, 1);
    ::unlink(path().c_str());
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
  }
  // Getting here is the proof: nobody writes into the pipe.
}

TEST_F(log_file_test, cut_of_a_file_that_was_shortened_since_loses_nothing) {
  test::write_file(path(), "first\nsecond\nthird\n");
  muro::xfile file(path(), muro::xfile::read_write, false);
  std::fseek(file, 0, SEEK_END);
  ASSERT_EQ(::truncate(path().c_str(), 6), 0);
  EXPECT_FALSE(muro::cut_log(file, 14));
  EXPECT_EQ(content(), "first\n");
}

TEST_F(log_file_test, rotation_moves_a_link_as_it_is) {
  test::write_file(dir / "target", "kept\n");
  batch({repeated});
  ASSERT_EQ(::symlink((dir / "target").c_str(), (path() + ".0").c_str()), 0);
  errlog::set_log_rotate(1, 2);
  batch({"P x\n"});
  EXPECT_EQ(test::read_file(path() + ".0"), repeated + "P x\n");
  EXPECT_TRUE(std::filesystem::is_symlink(path() + ".1"));
  EXPECT_EQ(test::read_file(dir / "target"), "kept\n");
}

TEST_F(log_file_test, link_that_leads_nowhere_does_not_stop_the_rotation) {
  ASSERT_EQ(::symlink((dir / "nowhere").c_str(), (path() + ".0").c_str()), 0);
  errlog::set_log_rotate(1, 1);
  batch({repeated});
  EXPECT_FALSE(muro::file_exists(path()));
  EXPECT_EQ(test::read_file(path() + ".0"), repeated);
  EXPECT_FALSE(muro::file_exists(dir / "nowhere"));
}

// Writes that fail.

int write_errno;
std::size_t write_allowed;

/// Lets `write_allowed` more bytes through, then fails with `write_errno`.
std::size_t failing_fwrite(const void* data, std::size_t size, std::size_t count, FILE* stream) {
  const std::size_t passed = std::min(count * size, write_allowed);
  write_allowed -= passed;
  const std::size_t written = std::fwrite(data, 1, passed, stream);
  if (written < count * size) errno = write_errno;
  return written;
}

class log_file_failure_test : public log_file_test, public testing::WithParamInterface<int> {
 protected:
  /// One batch during which `allowed` bytes reach the disk.
  void failing_batch(std::size_t allowed, const std::vector<std::string>& lines) {
    write_errno = GetParam();
    write_allowed = allowed;
    const test::replaced failing(muro::detail::g_log_fwrite, failing_fwrite);
    batch(lines);
  }
};

TEST_P(log_file_failure_test, line_after_a_failed_one_is_written_in_full) {
  batch({repeated});
  failing_batch(0, {repeated});
  batch({repeated, repeated});
  EXPECT_EQ(content(), repeated + repeated + marker(1));
}

TEST_P(log_file_failure_test, marker_that_failed_is_forgotten_with_its_line) {
  batch({repeated, repeated});
  failing_batch(0, {repeated});
  batch({repeated});
  EXPECT_EQ(content(), repeated + marker(1) + repeated);
}

TEST_P(log_file_failure_test, half_a_line_does_not_stay) {
  failing_batch(10, {"P one\n", "P two\n", "P three\n"});
  EXPECT_EQ(content(), "P one\n");
  batch({"P four\n"});
  EXPECT_EQ(content(), "P one\nP four\n");
}

TEST_P(log_file_failure_test, every_place_of_the_failure_leaves_whole_lines) {
  const std::vector<std::string> lines = {"P one\n", repeated, repeated, repeated, "P five\n"};
  const std::string whole = "P one\n" + repeated + marker(2) + "P five\n";
  for (std::size_t allowed = 0; allowed <= whole.size(); ++allowed) {
    ::unlink(path().c_str());
    memory = {};
    failing_batch(allowed, lines);
    const std::size_t end = allowed == 0 ? std::string::npos : whole.rfind('\n', allowed - 1);
    ASSERT_EQ(content(), whole.substr(0, end == std::string::npos ? 0 : end + 1)) << allowed;
    batch({"P next\n"});
    ASSERT_TRUE(content().ends_with("P next\n") || content() == "P next\n");
  }
}

TEST_P(log_file_failure_test, marker_that_is_overwritten_by_half_leaves_the_lines_around_it) {
  batch({"P one\n", repeated, repeated});
  failing_batch(5, {repeated});
  EXPECT_EQ(content().size(), ("P one\n" + repeated + marker(1)).size());
  batch({repeated});
  EXPECT_THAT(content(), testing::StartsWith("P one\n" + repeated));
  EXPECT_THAT(content(), testing::EndsWith(" - \n" + repeated));
}

INSTANTIATE_TEST_SUITE_P(log_file_test, log_file_failure_test,
                         testing::Values(EIO, ENOSPC, EFBIG, EDQUOT));

TEST_F(log_file_test, process_that_may_write_no_more_leaves_whole_lines) {
  const auto story = [] {
    const test::temp_dir own;
    muro::log_memory kept;
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{100, RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    {
      log_file file(own / "log", kept);
      for (int i = 0; i < 10; ++i)
        test::write_line(file, std::string("P twenty bytes ") + "line\n", 1);
      for (int i = 0; i < 10; ++i) test::write_line(file, "P " + std::to_string(i) + " ...\n", 1);
    }
    const std::string written = test::read_file(own / "log");
    CHECK_THAT(!written.empty() && written.size() <= 100 && written.ends_with('\n'));
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

/// A disk of some pages, in a name space of this process's own.
bool mount_tiny_disk(const std::string& place) {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", place.c_str(), "tmpfs", 0, "size=16k") == 0;
}

TEST_F(log_file_test, disk_that_fills_up_keeps_whole_lines_and_takes_more_when_there_is_room) {
  const auto story = [] {
    const test::temp_dir own;
    if (!mount_tiny_disk(own.path())) {
      std::fputs("no disk of its own\n", stderr);
      std::_Exit(std::getenv("CI") != nullptr ? 1 : 0);
    }
    errlog::set_log_file(own / "log");
    errlog::set_log_to_stderr(false);
    for (int i = 0; i < 1000; ++i) {
      muro::fmt_dbg("main").fmt_verbose("line %1% of many, long enough", i);
      if (i % 7 == 0) errlog::wait_for_flush();
    }
    errlog::wait_for_flush();
    const std::string full = test::read_file(own / "log");
    CHECK_THAT(full.size() > 4096 && full.ends_with('\n'));
    test::write_file(own / "log", "");
    log_and_flush("after");
    CHECK_THAT(test::read_file(own / "log").ends_with("Z main: after\n"));
    ::umount(own.path().c_str());
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

// A batch that is larger than a slice.

TEST_F(log_file_test, large_batch_is_rotated_on_the_way) {
  errlog::set_log_rotate(1000, 100);
  const std::string text(1000, 'x');
  {
    const test::held_dumper one_batch;
    for (int i = 0; i < 1000; ++i) muro::fmt_dbg("").fmt_verbose("%1% %2%", i, text);
  }
  errlog::wait_for_flush();
  std::string all;
  int generations = 0;
  for (; muro::file_exists(path() + "." + std::to_string(generations)); ++generations) {
    const std::string one = test::read_file(path() + "." + std::to_string(generations));
    EXPECT_LE(one.size(), muro::log_output::kSlice + 2000);
    all = one + all;
  }
  EXPECT_GE(generations, 4);
  std::string expected;
  for (int i = 0; i < 1000; ++i) expected += line(std::to_string(i) + " " + text);
  EXPECT_TRUE(all == expected) << all.size();
}

TEST_F(log_file_test, small_batch_is_one_slice) {
  errlog::set_log_rotate(1, 5);
  {
    const test::held_dumper one_batch;
    for (int i = 0; i < 1000; ++i) muro::fmt_dbg("").fmt_verbose("%1%", i);
  }
  errlog::wait_for_flush();
  EXPECT_TRUE(muro::file_exists(path() + ".0"));
  EXPECT_FALSE(muro::file_exists(path() + ".1"));
}

}  // namespace
