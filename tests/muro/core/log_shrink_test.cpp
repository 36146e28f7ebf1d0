#include "muro/core/log_shrink.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>

#include "muro/sys/files.h"
#include "muro/sys/xfile.h"
#include "tests/support/temp_dir.h"

namespace {

using muro::xfile;

/// A log file with chosen content, opened as the dumper has it at the end of a batch.
class log_shrink_test : public testing::Test {
 protected:
  std::string path() const { return dir / "log"; }
  std::string generation(int k) const { return path() + "." + std::to_string(k); }
  std::string content() const { return test::read_file(path()); }

  void rotate(unsigned long long size, int count) {
    xfile file(path(), xfile::read_write, false);
    std::fseek(file, 0, SEEK_END);
    muro::rotate_log(file, size, count);
    EXPECT_FALSE(file) << "rotate_log closes the file";
  }

  std::string cut(const std::string& text, unsigned long long size) {
    test::write_file(path(), text);
    xfile file(path(), xfile::read_write, false);
    std::fseek(file, 0, SEEK_END);
    muro::cut_log(file, size);
    EXPECT_TRUE(file) << "cut_log leaves the file open";
    file.close();
    return content();
  }

  /// What the folder holds: names behind "log" and contents.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> found;
    std::vector<std::string> paths;
    muro::find_files(paths, dir / "*");
    for (const std::string& p : paths) found[p.substr(path().size())] = test::read_file(p);
    return found;
  }
  using folder = std::map<std::string, std::string>;

  const test::temp_dir dir;
};

// Rotation.

TEST_F(log_shrink_test, file_that_has_reached_the_size_becomes_generation_0) {
  test::write_file(path(), "0123456789");
  rotate(10, 1);
  EXPECT_EQ(files(), (folder{{".0", "0123456789"}}));
}

TEST_F(log_shrink_test, file_below_the_size_stays) {
  test::write_file(path(), "0123456789");
  rotate(11, 1);
  EXPECT_EQ(files(), (folder{{"", "0123456789"}}));
}

TEST_F(log_shrink_test, position_counts_and_not_the_file_size) {
  test::write_file(path(), "0123456789");
  xfile file(path(), xfile::read_write, false);
  std::fseek(file, 5, SEEK_SET);
  muro::rotate_log(file, 6, 1);
  EXPECT_EQ(files(), (folder{{"", "0123456789"}}));
}

TEST_F(log_shrink_test, count_of_one_replaces_generation_0) {
  test::write_file(path(), "new");
  test::write_file(generation(0), "old");
  rotate(1, 1);
  EXPECT_EQ(files(), (folder{{".0", "new"}}));
}

TEST_F(log_shrink_test, generations_move_up_by_one) {
  test::write_file(path(), "c");
  test::write_file(generation(0), "b");
  test::write_file(generation(1), "a");
  rotate(1, 3);
  EXPECT_EQ(files(), (folder{{".0", "c"}, {".1", "b"}, {".2", "a"}}));
  test::write_file(path(), "d");
  rotate(1, 3);
  EXPECT_EQ(files(), (folder{{".0", "d"}, {".1", "c"}, {".2", "b"}}));
}

TEST_F(log_shrink_test, gap_ends_the_moving) {
  test::write_file(path(), "c");
  test::write_file(generation(1), "a");
  rotate(1, 3);
  EXPECT_EQ(files(), (folder{{".0", "c"}, {".1", "a"}}));
}

TEST_F(log_shrink_test, run_of_an_earlier_larger_count_is_deleted) {
  test::write_file(path(), "new");
  for (int k : {0, 1, 2, 3, 5}) test::write_file(generation(k), std::to_string(k));
  rotate(1, 2);
  EXPECT_EQ(files(), (folder{{".0", "new"}, {".1", "0"}, {".5", "5"}}));
}

TEST_F(log_shrink_test, negative_count_keeps_no_file) {
  test::write_file(path(), "new");
  test::write_file(generation(0), "old");
  rotate(1, -1);
  EXPECT_EQ(files(), folder{});
}

TEST_F(log_shrink_test, size_is_compared_as_a_signed_number) {
  test::write_file(path(), "x");
  rotate(0x8000000000000000, 1);
  EXPECT_EQ(files(), (folder{{".0", "x"}}));
  test::write_file(path(), "y");
  rotate(0x7fffffffffffffff, 1);
  EXPECT_EQ(files(), (folder{{"", "y"}, {".0", "x"}}));
}

TEST_F(log_shrink_test, move_that_fails_does_not_stop_the_next_one) {
  test::write_file(path(), "b");
  test::write_file(generation(0), "a");
  ASSERT_EQ(::mkdir(generation(1).c_str(), 0700), 0);
  test::write_file(generation(1) + "/kept", "");
  // The folder at NAME.1 cannot be deleted, so NAME.0 cannot move there, nor NAME to NAME.0.
  rotate(1, 2);
  EXPECT_EQ(test::read_file(path()), "b");
  EXPECT_EQ(test::read_file(generation(0)), "a");
  // With one more place the folder moves on, and so do the others.
  rotate(1, 3);
  EXPECT_EQ(test::read_file(generation(0)), "b");
  EXPECT_EQ(test::read_file(generation(1)), "a");
  EXPECT_TRUE(muro::file_exists(generation(2) + "/kept"));
}

TEST_F(log_shrink_test, file_without_a_name_is_closed_and_left) {
  xfile closed("", xfile::read_write, false);
  muro::rotate_log(closed, 0, 1);
  EXPECT_EQ(files(), folder{});
}

// Cutting.

TEST_F(log_shrink_test, file_up_to_the_size_is_not_cut) {
  EXPECT_EQ(cut("0123456\n", 8), "0123456\n");
}

TEST_F(log_shrink_test, newest_lines_stay_within_half_the_size) {
  // Half of 20 is 10: "4\n" to "8\n", of which the last fills the rest exactly and is cut off too.
  EXPECT_EQ(cut("0000\n1\n2\n3\n4\n5\n6\n7\n8\n", 20), "4\n5\n6\n7\n");
}

TEST_F(log_shrink_test, half_may_begin_inside_a_line) {
  EXPECT_EQ(cut("aaaaaaaaaaaa\nbb\ncc\n", 18), "aa\nbb\n");
}

TEST_F(log_shrink_test, one_long_line_is_cut_off_whole) {
  EXPECT_EQ(cut(std::string(100, 'x'), 50), "");
}

TEST_F(log_shrink_test, size_below_2_leaves_nothing) {
  EXPECT_EQ(cut("a\nb\nc\n", 1), "");
}

TEST_F(log_shrink_test, odd_size_is_halved_downwards) {
  EXPECT_EQ(cut("aaaa\nb\nc\nd\n", 9), "c\n") << "half of 9 is 4: c and d";
}

TEST_F(log_shrink_test, lines_longer_than_one_read_stay_whole) {
  const std::string long_line = std::string(150000, 'x') + "\n";
  const std::string kept = cut(long_line + long_line + long_line + "end\n", 400000);
  EXPECT_TRUE(kept == std::string(49994, 'x') + "\n" + long_line) << kept.size();
}

TEST_F(log_shrink_test, what_was_added_after_the_position_is_taken_too) {
  test::write_file(path(), "0000\n1\n2\n3\n4\n");
  xfile file(path(), xfile::read_write, false);
  std::fseek(file, -2, SEEK_END);
  // The position is 11 and half of 8 is 4: 2 and 3 from byte 7 on. 4 would be beyond the half.
  EXPECT_TRUE(muro::cut_log(file, 8));
  file.close();
  EXPECT_EQ(content(), "2\n");
}

TEST_F(log_shrink_test, file_that_is_gone_cannot_be_cut) {
  test::write_file(path(), "a\nb\nc\n");
  xfile file(path(), xfile::read_write, false);
  std::fseek(file, 0, SEEK_END);
  ::unlink(path().c_str());
  EXPECT_FALSE(muro::cut_log(file, 2));
  EXPECT_EQ(std::ftell(file), 6);
}

TEST_F(log_shrink_test, closed_file_cannot_be_cut) {
  xfile closed("", xfile::read_write, false);
  EXPECT_FALSE(muro::cut_log(closed, 1));
}

TEST_F(log_shrink_test, file_that_cannot_be_written_is_left_as_it_is) {
  test::write_file(path(), "a\nb\nc\n");
  xfile file(path(), xfile::read_only, false);
  std::fseek(file, 0, SEEK_END);
  muro::cut_log(file, 4);
  EXPECT_EQ(content(), "a\nb\nc\n");
}

/// The rule word for word, on a string.
std::string obvious_cut(const std::string& text, std::size_t size) {
  if (size >= text.size()) return text;
  const std::size_t half = size / 2;
  std::size_t remaining = half;
  std::string tail = text.substr(text.size() - half);
  std::string written;
  while (remaining > 0 && !tail.empty()) {
    const std::size_t end = std::min(tail.find('\n'), tail.size() - 1) + 1;
    written += tail.substr(0, end);
    tail.erase(0, end);
    if (remaining <= end) break;
    remaining -= end;
  }
  return written.substr(0, half - remaining);
}

TEST_F(log_shrink_test, agrees_with_the_rule_on_random_files) {
  std::mt19937 random(11);
  for (int round = 0; round < 300; ++round) {
    std::string text;
    for (std::size_t lines = random() % 20; lines > 0; --lines) {
      text += std::string(random() % 8, static_cast<char>('a' + lines % 26));
      if (random() % 10 != 0) text += '\n';
    }
    const std::size_t size = random() % 80;
    ASSERT_EQ(cut(text, size), obvious_cut(text, size)) << size << "\n" << text;
  }
}

}  // namespace
