#include "tools/rnrctl/log_reader.h"

#include <gtest/gtest.h>

#include <sstream>

#include "muro/core/log_text.h"
#include "tests/support/temp_dir.h"
#include "tools/rnrctl/commands.h"

namespace {

using rnrctl::log_entry;

std::vector<log_entry> entries_of(const std::vector<std::string>& lines) {
  std::vector<log_entry> entries;
  for (const std::string& line : lines) rnrctl::add_line(entries, line, "f");
  return entries;
}

TEST(log_line, is_time_component_and_message) {
  const log_entry entry = entries_of({"2026-01-02T03:04:05Z main: Install agent failed"}).at(0);
  EXPECT_EQ(entry.time, "2026-01-02T03:04:05Z");
  EXPECT_EQ(entry.component, "main");
  EXPECT_EQ(entry.message, "Install agent failed");
  EXPECT_EQ(entry.repeats, 0U);
}

TEST(log_line, may_have_no_component) {
  for (const char* const text : {"bare", "/a: b", "could not (x): y", ": x"}) {
    const log_entry entry = entries_of({std::string("2026-01-02T03:04:05Z ") + text}).at(0);
    EXPECT_EQ(entry.component, "") << text;
    EXPECT_EQ(entry.message, text);
  }
  EXPECT_EQ(entries_of({"2026-01-02T03:04:05Z thread startup: x"}).at(0).component,
            "thread startup");
}

TEST(log_line, of_an_unreadable_clock_has_no_time) {
  const log_entry entry = entries_of({"N main: x"}).at(0);
  EXPECT_EQ(entry.time, "");
  EXPECT_EQ(entry.message, "x");
}

TEST(log_line, that_is_torn_is_kept_whole) {
  EXPECT_EQ(entries_of({"02T03:04:05Z main: x"}).at(0).message, "02T03:04:05Z main: x");
}

TEST(marker, counts_for_the_line_before) {
  const auto entries =
      entries_of({"2026-01-02T03:04:05Z main: x", "2026-01-02T03:04:09Z -          9 - ",
                  "2026-01-02T03:04:10Z main: y"});
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].repeats, 9U);
  EXPECT_EQ(entries[0].last_time, "2026-01-02T03:04:09Z");
  EXPECT_EQ(entries[1].message, "y");
}

TEST(marker, of_a_line_that_was_cut_off_stands_for_itself) {
  EXPECT_EQ(entries_of({"2026-01-02T03:04:09Z -          9 - "}).at(0).message, "-          9 - ");
}

TEST(marker, is_told_from_text_that_looks_like_it) {
  EXPECT_EQ(entries_of({"2026-01-02T03:04:05Z a: x", "2026-01-02T03:04:05Z - x - "}).size(), 2U);
  EXPECT_EQ(entries_of({"2026-01-02T03:04:05Z a: x", "2026-01-02T03:04:05Z - - "}).size(), 2U);
}

TEST(without_escapes, undoes_what_the_log_did) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  std::string written = all;
  muro::log_text::escape(written);
  EXPECT_EQ(rnrctl::without_escapes(written), all);
}

TEST(without_escapes, leaves_what_is_no_escape) {
  EXPECT_EQ(rnrctl::without_escapes("a`"), "a`");
  EXPECT_EQ(rnrctl::without_escapes("a`0"), "a`0");
  EXPECT_EQ(rnrctl::without_escapes("a`xy"), "a`xy");
}

TEST(printable, does_a_terminal_no_harm) {
  EXPECT_EQ(rnrctl::printable("a\nb\tc\x1b[2J\x7f\xc3\xa4"), "a\\nb\\tc\\x1b[2J\\x7f\xc3\xa4");
}

TEST(read_log, puts_older_generations_first) {
  const test::temp_dir folder;
  test::write_file(folder / "x.out", "2026-01-03T00:00:00Z a: 3\n2026-01-04T00:00:00Z torn");
  test::write_file(folder / "x.out.0", "2026-01-02T00:00:00Z a: 2\n");
  test::write_file(folder / "x.out.1", "2026-01-01T00:00:00Z a: 1\n");
  std::string messages;
  for (const log_entry& entry : rnrctl::read_log(folder / "x.out")) messages += entry.message;
  EXPECT_EQ(messages, "123");
}

TEST(read_log, of_nothing_is_empty) {
  EXPECT_TRUE(rnrctl::read_log("/nowhere/x.out").empty());
}

TEST(merged, sorts_by_time_and_keeps_each_files_order) {
  const auto first = entries_of({"2026-01-01T00:00:00Z a: 1", "N a: 2", "2026-01-03T00:00:00Z a: 4",
                                 "2026-01-01T00:00:00Z a: 5"});
  const auto second = entries_of({"2026-01-02T00:00:00Z a: 3", "2026-01-03T00:00:00Z a: 6"});
  std::string order;
  for (const log_entry& entry : rnrctl::merged({first, second})) order += entry.message;
  EXPECT_EQ(order, "123456");
}

TEST(filter, finds_an_id_as_a_whole_word_or_by_its_folder) {
  const rnrctl::log_filter filter{"abc", ""};
  log_entry entry;
  for (const char* const text : {"x abc", "/s/abc/abc.dat", "com.norvane.korvel.restart.abc"}) {
    entry.message = text;
    EXPECT_TRUE(filter.passes(entry)) << text;
  }
  for (const char* const text : {"xabc", "abcd", "abc-1", "ab"}) {
    entry.message = text;
    EXPECT_FALSE(filter.passes(entry)) << text;
  }
  entry.file = "/Library/VeskRuntime/sessions/abc/helper/korvel_helper.out";
  EXPECT_TRUE(filter.passes(entry));
}

class log_command : public testing::Test {
 protected:
  std::string log(std::vector<std::string> words) {
    words.insert(words.begin(), {"log", "--file", folder / "x.out"});
    std::ostringstream out, err;
    EXPECT_EQ(rnrctl::rnrctl_main(words, out, err), rnrctl::exit_status::done) << err.str();
    return out.str();
  }
  void write(const std::string& content) { test::write_file(folder / "x.out", content); }

  const test::temp_dir folder;
};

TEST_F(log_command, shows_lines_for_people) {
  write("2026-01-02T03:04:05Z a: x`0ay\n2026-01-02T03:04:09Z -          9 - \nN b: z\n");
  EXPECT_EQ(log({}),
            "2026-01-02T03:04:05Z a: x\\ny  (9 more, the last at 2026-01-02T03:04:09Z)\n"
            "(no time)            b: z\n");
}

TEST_F(log_command, shows_lines_for_programs) {
  write("2026-01-02T03:04:05Z a: x`0ay\xff\n");
  EXPECT_EQ(log({"--json"}),
            "{\"component\":\"a\",\"file\":\"" + (folder / "x.out") +
                "\",\"message\":\"x\\ny\xef\xbf\xbd\",\"time\":\"2026-01-02T03:04:05Z\"}\n");
}

TEST_F(log_command, shows_what_is_asked_for) {
  write("2026-01-02T03:04:05Z a: x\n2026-01-02T03:04:05Z b: y\n");
  EXPECT_EQ(log({"--component", "b"}), "2026-01-02T03:04:05Z b: y\n");
  EXPECT_EQ(log({"--id", "x"}), "2026-01-02T03:04:05Z a: x\n");
}

}  // namespace
