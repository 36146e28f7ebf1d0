// The catalogue explains what the helper's sources say, no more and no less.

#include "tools/rnrctl/catalogue.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>

namespace {

using rnrctl::explain;
using texts = std::set<std::string>;

std::string sources() {
  std::string all;
  for (const char* const folder : {"front", "osx", "ipc", "muro", "netbuf"}) {
    const std::filesystem::path top = std::filesystem::path(KORVEL_SOURCE_DIR) / folder;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
      if (entry.path().extension() != ".cpp") continue;
      std::ifstream file(entry.path());
      all.append(std::istreambuf_iterator<char>(file), {});
    }
  }
  return all;
}

// What the groups of `pattern` hold, anywhere in the sources.
texts literals(const std::string& pattern) {
  const std::regex expression(pattern);
  const std::string all = sources();
  texts found;
  for (std::sregex_iterator at(all.begin(), all.end(), expression), end; at != end; ++at)
    for (std::size_t group = 1; group < at->size(); ++group)
      if ((*at)[group].matched) found.insert((*at)[group]);
  return found;
}

template <class Entries, class Member>
texts told(const Entries& entries, Member member) {
  texts all;
  for (const auto& entry : entries) all.insert(entry.*member);
  return all;
}

texts without(texts all, const texts& these) {
  for (const std::string& text : these) all.erase(text);
  return all;
}

TEST(catalogue, has_every_line_that_the_helper_logs) {
  const texts known = told(rnrctl::log_messages(), &rnrctl::log_message::text);
  const texts logged = literals(R"re((?:fmt_verbose\(\s*|fail\(log,\s*)"([^"]*)")re");
  EXPECT_EQ(without(logged, known), texts{});
  EXPECT_EQ(without(known, logged), texts{});
}

TEST(catalogue, has_every_component_that_logs) {
  texts scopes = literals(
      R"re(fmt_dbg (?:const )?[a-z]+\("([^"]*)"|fmt_dbg\("([^"]*)"\)|kLogName = "([^"]*)")re");
  // Scopes whose own lines are exceptions' texts, or that only hand on to others.
  for (const char* const silent : {"get_sessions", "get_sessions_v2", "launchd_agent_install",
                                   "uninstallAgent", "launchd_daemon_uninstall"})
    EXPECT_EQ(scopes.erase(silent), 1U) << silent;
  texts known = told(rnrctl::log_messages(), &rnrctl::log_message::component);
  known.erase("");  // a name that the host chooses
  EXPECT_EQ(without(scopes, known), texts{});
  EXPECT_EQ(without(known, scopes), texts{});
}

TEST(catalogue, has_every_function_that_an_exception_names) {
  const texts known = told(rnrctl::failed_functions(), &rnrctl::failed_function::name);
  const texts thrown = literals(
      R"re(exception::function\("([^"]*)"\)|exception::system_error(?:_context)?\("([^"]*)"|[^.]\bfail\("([^"]*)"|kSendToSock = "([^"]*)")re");
  for (const std::string& name : thrown) {
    // The stream's own failures name the C function that failed.
    if (texts{"fopen", "fwrite", "fflush", "fclose", "invalid_mode"}.contains(name)) continue;
    EXPECT_TRUE(known.contains(name)) << name;
  }
}

TEST(catalogue, has_no_sentence_without_an_end) {
  for (const rnrctl::log_message& message : rnrctl::log_messages()) {
    EXPECT_EQ(std::string(message.meaning).back(), '.') << message.text;
    const std::string advice = message.advice;
    EXPECT_TRUE(advice.empty() || advice.back() == '.' || advice.back() == '"') << advice;
  }
}

TEST(matches, takes_any_text_for_a_placeholder) {
  EXPECT_TRUE(rnrctl::matches("a %1% b", "a x b"));
  EXPECT_TRUE(rnrctl::matches("a %1%", "a "));
  EXPECT_TRUE(rnrctl::matches("%1%-%2%-%3%", "9-0-3"));
  EXPECT_TRUE(rnrctl::matches("stopping %1%...", "stopping /a...b..."));
  EXPECT_FALSE(rnrctl::matches("a %1% b", "a x c"));
  EXPECT_FALSE(rnrctl::matches("a", "ab"));
  EXPECT_FALSE(rnrctl::matches("ab", "a"));
  EXPECT_TRUE(rnrctl::matches("100%", "100%"));
}

TEST(explain, knows_a_whole_line_of_the_log) {
  const auto lines = explain("2026-01-02T03:04:05Z moveHelper: Failed to create helper folder");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].rfind("moveHelper: The folder for the helper's copy", 0), 0U);
}

TEST(explain, tells_messages_of_one_text_apart_by_their_component) {
  EXPECT_EQ(explain("installService: Failed to move restore file").size(), 1U);
  EXPECT_EQ(explain("Failed to move restore file").size(), 3U);
}

TEST(explain, says_what_to_do) {
  const auto lines = explain("commandReceived: Korvel executable not found");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1], "What to do: Install the client, then register again.");
}

TEST(explain, takes_an_exception_apart) {
  const auto lines = explain(
      "installService: Failed to install daemon: :Error from 'unlink' (called in 'delete_file'): "
      "[/x] 13, Permission denied");
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[2], "\"delete_file\": a file cannot be deleted.");
  EXPECT_EQ(lines[3], "The system's call \"unlink\" failed: Permission denied.");
}

TEST(explain, reads_the_marker_of_repeats) {
  EXPECT_EQ(explain("2026-01-02T03:04:09Z -          9 - "),
            std::vector<std::string>{"The line above came 9 more times, at last at this time."});
}

TEST(explain, knows_a_number_from_everyone_who_uses_it) {
  EXPECT_EQ(explain("42").size(), 1U);
  EXPECT_EQ(explain("5").size(), 2U);
  EXPECT_TRUE(explain("77").empty());
}

TEST(explain, does_not_know_everything) {
  EXPECT_TRUE(explain("hello").empty());
  EXPECT_TRUE(explain("").empty());
}

}  // namespace
