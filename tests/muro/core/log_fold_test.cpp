#include "muro/core/log_fold.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using muro::log_folder;

constexpr std::size_t kPrefix = 3;

/// What the folder gives for a line, as text and step back.
struct given {
  std::string bytes;
  std::size_t step_back;
  bool operator==(const given&) const = default;
};

void PrintTo(const given& g, std::ostream* out) {
  *out << '"' << g.bytes << "\" -" << g.step_back;
}

class log_fold_test : public testing::Test {
 protected:
  given fold(const std::string& line, std::size_t prefix = kPrefix) {
    const log_folder::output out = folder.fold(line, prefix);
    return {std::string(out.bytes), out.step_back};
  }

  log_folder folder;
};

TEST_F(log_fold_test, first_line_is_written) {
  EXPECT_EQ(fold("t1 a message that is long\n"), (given{"t1 a message that is long\n", 0}));
}

TEST_F(log_fold_test, first_repeat_appends_a_marker) {
  fold("t1 a message that is long\n");
  EXPECT_EQ(fold("t2 a message that is long\n"), (given{"t2  -          1 - \n", 0}));
}

TEST_F(log_fold_test, later_repeats_overwrite_the_marker) {
  fold("t1 a message that is long\n");
  fold("t2 a message that is long\n");
  EXPECT_EQ(fold("t3 a message that is long\n"), (given{"t3  -          2 - \n", 20}));
  for (int i = 3; i < 10; ++i) fold("t4 a message that is long\n");
  EXPECT_EQ(fold("t5 a message that is long\n"), (given{"t5  -         10 - \n", 20}));
}

TEST_F(log_fold_test, another_line_starts_over) {
  fold("t1 a message that is long\n");
  fold("t1 a message that is long\n");
  EXPECT_EQ(fold("t1 another message, longer\n"), (given{"t1 another message, longer\n", 0}));
  EXPECT_EQ(fold("t1 another message, longer\n").step_back, 0U);
  EXPECT_EQ(fold("t1 another message, longer\n").bytes, "t1  -          2 - \n");
}

TEST_F(log_fold_test, same_length_is_not_the_same_line) {
  fold("t1 a message that is long\n");
  EXPECT_EQ(fold("t1 a message that is lonG\n"), (given{"t1 a message that is lonG\n", 0}));
  EXPECT_EQ(fold("t1-a message that is lonG\n").bytes, "t1- -          1 - \n");
}

TEST_F(log_fold_test, another_prefix_length_is_another_line) {
  fold("t1 a message that is long\n", 3);
  EXPECT_EQ(fold("t1 a message that is long\n", 2).bytes, "t1 a message that is long\n");
}

TEST_F(log_fold_test, line_shorter_than_its_marker_is_never_folded) {
  const std::string sixteen = "t1 " + std::string(15, 'x') + "\n";
  EXPECT_EQ(fold(sixteen).bytes, sixteen);
  EXPECT_EQ(fold(sixteen).bytes, sixteen);
  const std::string seventeen = "t1 " + std::string(16, 'x') + "\n";
  fold(seventeen);
  EXPECT_EQ(fold(seventeen).bytes, "t1  -          1 - \n");
}

TEST_F(log_fold_test, prefix_longer_than_the_line_is_no_repeat) {
  const std::string line(30, 'x');
  fold(line, 31);
  EXPECT_EQ(fold(line, 31), (given{line, 0}));
  fold(line, static_cast<std::size_t>(-1));
  EXPECT_EQ(fold(line, static_cast<std::size_t>(-1)), (given{line, 0}));
}

TEST_F(log_fold_test, marker_is_as_long_as_the_shortest_line_it_stands_for) {
  fold(std::string(17, 'x'), 0);
  EXPECT_EQ(fold(std::string(17, 'x'), 0), (given{" -          1 - \n", 0}));
}

TEST_F(log_fold_test, forgotten_line_is_written_again) {
  fold("t1 a message that is long\n");
  fold("t1 a message that is long\n");
  folder.forget();
  EXPECT_EQ(fold("t1 a message that is long\n"), (given{"t1 a message that is long\n", 0}));
  EXPECT_EQ(fold("t1 a message that is long\n").bytes, "t1  -          1 - \n");
}

TEST_F(log_fold_test, buffer_is_kept_at_64_kib_and_shrinks_back_after_a_longer_line) {
  fold("short line\n");
  EXPECT_EQ(folder.capacity(), 0x10000U);
  fold(std::string(0x10000, 'x'));
  EXPECT_EQ(folder.capacity(), 0x10000U);
  fold(std::string(0x20000, 'x'));
  EXPECT_EQ(folder.capacity(), 0x20000U);
  fold(std::string(0x10001, 'x'));
  EXPECT_EQ(folder.capacity(), 0x20000U) << "a longer line may use the larger buffer";
  fold("short line\n");
  EXPECT_EQ(folder.capacity(), 0x10000U);
}

TEST_F(log_fold_test, long_lines_fold_too) {
  const std::string text(0x20000, 'x');
  fold("t1 " + text);
  EXPECT_EQ(fold("t2 " + text), (given{"t2  -          1 - \n", 0}));
}

/// The rule word for word, on whole strings.
class obvious_folder {
 public:
  given fold(const std::string& line, std::size_t p) {
    const std::size_t n = line.size();
    if (remembered_ && p == p_ && n == line_.size() && n >= p + 17 &&
        line.substr(p) == line_.substr(p)) {
      ++counter_;
      std::string digits = std::to_string(counter_);
      digits.insert(0, 10 - digits.size(), ' ');
      return {line.substr(0, p) + " - " + digits + " - \n", counter_ == 1 ? 0 : p + 17};
    }
    remembered_ = true;
    line_ = line;
    p_ = p;
    counter_ = 0;
    return {line, 0};
  }

 private:
  bool remembered_ = false;
  std::string line_;
  std::size_t p_ = 0;
  unsigned counter_ = 0;
};

TEST_F(log_fold_test, agrees_with_the_rule_on_random_lines) {
  std::mt19937 random(7);
  obvious_folder obvious;
  for (int i = 0; i < 20000; ++i) {
    const std::size_t prefix = random() % 3;
    std::string line = std::to_string(random() % 10) + std::to_string(random() % 10);
    line += std::string(16 + random() % 3, static_cast<char>('a' + random() % 2));
    const given expected = obvious.fold(line, prefix);
    ASSERT_EQ(fold(line, prefix), expected) << i;
  }
}

}  // namespace
