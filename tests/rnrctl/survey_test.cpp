#include "tools/rnrctl/survey.h"

#include <gtest/gtest.h>

#include "osx/job_text.h"
#include "tools/rnrctl/launchd_view.h"

namespace {

using rnrctl::job_facts;
using rnrctl::job_kind;
using labels = std::set<std::string>;

job_facts read(const std::string& text, job_kind kind = job_kind::agent) {
  job_facts job(kind);
  rnrctl::read_job_text(text, job);
  return job;
}

TEST(job_text, is_read_as_the_helper_writes_it) {
  const std::vector<std::string> command{"/a & b", "<x>", "&lt;", ""};
  const job_facts job = read(osx::launchd_agent_text("l&l", command));
  EXPECT_EQ(job.label_inside, "l&l");
  EXPECT_EQ(job.command, command);
  EXPECT_TRUE(job.as_written);
}

TEST(job_text, of_the_other_kind_is_not_as_written) {
  EXPECT_FALSE(read(osx::launchd_agent_text("l", {"/a"}), job_kind::daemon).as_written);
  EXPECT_TRUE(read(osx::launchd_daemon_text("l", {"/a"}), job_kind::daemon).as_written);
}

TEST(job_text, that_was_changed_is_not_as_written) {
  EXPECT_FALSE(read(osx::launchd_agent_text("l", {"/a"}) + "\n").as_written);
}

TEST(job_text, of_anything_else_tells_nothing) {
  for (const char* const text : {"", "bplist00", "<key>Label</key>", "<key>Label</key><true/>",
                                 "<key>Label</key><string>open"}) {
    const job_facts job = read(text);
    EXPECT_EQ(job.label_inside, "") << text;
    EXPECT_TRUE(job.command.empty());
    EXPECT_FALSE(job.as_written);
  }
}

TEST(list, gives_the_last_word_of_each_line) {
  EXPECT_EQ(rnrctl::labels_in_list("PID\tStatus\tLabel\n12\t0\ta.b\n-\t-9\tc d\n"),
            (labels{"Label", "a.b", "d"}));
  EXPECT_EQ(rnrctl::labels_in_list(""), labels{});
}

TEST(print_disabled, gives_what_is_disabled_in_the_words_of_each_release) {
  EXPECT_EQ(rnrctl::labels_disabled("disabled services = {\n\t\"a\" => true\n\t\"b\" => false\n"
                                    "\t\"c\" => disabled\n\t\"d\" => enabled\n}\n"),
            (labels{"a", "c"}));
}

TEST(overrides, give_what_is_disabled) {
  EXPECT_EQ(rnrctl::labels_overridden("<dict><key>a</key><dict><key>Disabled</key>\n<true/></dict>"
                                      "<key>b</key><dict><key>Disabled</key><false/></dict>"),
            labels{"a"});
  EXPECT_EQ(rnrctl::labels_overridden("<key>Disabled"), labels{});
}

}  // namespace
