#include "front/roles.h"

#include "tests/front/mac.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct row {
  const char* name;
  start_options options;
  nil_string restore_id;
  bool exists;
  role expected;
};

void PrintTo(const row& one, std::ostream* out) {
  *out << one.name;
}

start_options with(const char* restore_file, bool installed = false) {
  start_options options;
  options.restore_file = restore_file;
  options.installed = installed;
  return options;
}

start_options testing_too(start_options options) {
  options.test = true;
  return options;
}

start_options installing_too(start_options options) {
  options.run_install = true;
  return options;
}

start_options with_executable(start_options options) {
  options.exe_path = "/Applications/Korvel.app";
  return options;
}

const row kRows[] = {
    {"test", testing_too({}), std::nullopt, false, role::self_test},
    {"test_wins", testing_too(installing_too(with("/abc.dat", true))), "abc", true,
     role::self_test},
    {"run_install", installing_too({}), std::nullopt, false, role::install_shared_daemon},
    {"run_install_ignores_the_restore_file", installing_too(with("/abc.dat", true)), "abc", true,
     role::install_shared_daemon},
    {"run_install_ignores_a_bad_restore_file", installing_too(with("/abc.txt")), std::nullopt,
     false, role::install_shared_daemon},
    {"file_is_gone", with("/abc.dat"), "abc", false, role::remove_session},
    {"file_is_gone_when_installed", with("/abc.dat", true), "abc", false, role::remove_session},
    {"not_installed", with("/abc.dat"), "abc", true, role::install_session_daemon},
    {"installed", with("/abc.dat", true), "abc", true, role::serve_session},
    {"no_id", with("/abc.txt"), std::nullopt, true, role::refuse_restore_file},
    {"no_id_no_file", with("/abc.txt"), std::nullopt, false, role::refuse_restore_file},
    {"no_id_installed", with("/abc.txt", true), std::nullopt, true, role::refuse_restore_file},
    {"empty_path", with(""), std::nullopt, false, role::refuse_restore_file},
    {"empty_id", with("/.dat"), "", true, role::refuse_restore_file},
    {"empty_id_no_file", with("/.dat", true), "", false, role::refuse_restore_file},
    {"dot_id", with("/..dat"), ".", true, role::refuse_restore_file},
    {"dots_id", with("/...dat"), "..", false, role::refuse_restore_file},
    {"nothing", {}, std::nullopt, false, role::serve_shared},
    {"executable_alone", with_executable({}), std::nullopt, false, role::serve_shared},
};

class choice : public testing::TestWithParam<row> {};

TEST_P(choice, is_the_first_row_that_fits) {
  const row& given = GetParam();
  EXPECT_EQ(choose_role(given.options, given.restore_id, given.exists), given.expected);
}

INSTANTIATE_TEST_SUITE_P(dispatch, choice, testing::ValuesIn(kRows),
                         [](const auto& row_info) { return std::string(row_info.param.name); });

TEST(choice, installed_alone_serves_the_shared_endpoint) {
  start_options options;
  options.installed = true;
  EXPECT_EQ(choose_role(options, std::nullopt, false), role::serve_shared);
}

// The loops that stand for the system's run loop; each looks at the endpoint and returns.
test::lines* seen = new test::lines;

void look_around() {
  *seen = test::in_tmp();
}

void resign_abc() {
  seen->push_back(test::request("korvel_helper_abc", test::packet("rnr_resign", "/tmp/abc.dat")));
}

class serving : public test::mac {
 protected:
  serving() { seen->clear(); }

  static start_options installed(const nil_string& exe_path) {
    start_options options = with(kFile, true);
    options.exe_path = exe_path;
    return options;
  }

  static constexpr const char* kFile = "/Library/VeskRuntime/sessions/abc/abc.dat";
};

TEST_F(serving, shared_endpoint_has_the_plain_name) {
  EXPECT_EQ(serve(std::nullopt, look_around), 0);
  EXPECT_THAT(*seen, ElementsAre("korvel_helper.ipc"));
  EXPECT_EQ(serve("", look_around), 0);
  EXPECT_THAT(*seen, ElementsAre("korvel_helper.ipc"));
}

TEST_F(serving, session_endpoint_carries_the_id) {
  EXPECT_EQ(serve("abc", look_around), 0);
  EXPECT_THAT(*seen, ElementsAre("korvel_helper_abc.ipc"));
}

TEST_F(serving, closes_its_endpoint_when_the_loop_returns) {
  serve("abc", look_around);
  EXPECT_FALSE(test::exists("/tmp/korvel_helper_abc.ipc"));
}

TEST_F(serving, knows_its_own_session) {
  test::make_file(test::daemon_file("abc"));
  test::make_file(kFile);
  serve("abc", resign_abc);
  EXPECT_THAT(*seen, ElementsAre(""));
  EXPECT_FALSE(test::exists(kFile));
}

TEST_F(serving, session_installs_a_missing_agent_for_what_it_was_given) {
  EXPECT_EQ(serve_session(installed("/x/korvel"), "abc", look_around), 0);
  EXPECT_THAT(test::arguments_in(test::agent_file("abc")),
              ElementsAre("/x/korvel", "--connect-restore", kFile, "--on-connect",
                          "desktop?restart=continue", "--auto-close", "--wait-for-console"));
  EXPECT_THAT(*seen, ElementsAre("korvel_helper_abc.ipc"));
  EXPECT_THAT(test::log_of("main"), IsEmpty());
}

TEST_F(serving, session_leaves_an_installed_agent_alone) {
  test::make_file(test::agent_file("abc"), "as it is");
  EXPECT_EQ(serve_session(installed("/x/korvel"), "abc", look_around), 0);
  EXPECT_EQ(test::content_of(test::agent_file("abc")), "as it is");
  EXPECT_THAT(test::pauses(), IsEmpty());
}

TEST_F(serving, session_serves_without_its_agent) {
  test::remove_tree("/Library/LaunchAgents");
  EXPECT_EQ(serve_session(installed("/x/korvel"), "abc", look_around), 0);
  EXPECT_THAT(test::log_of("main"), ElementsAre("Install agent failed"));
  EXPECT_THAT(*seen, ElementsAre("korvel_helper_abc.ipc"));
}

TEST_F(serving, session_without_an_executable_serves_without_its_agent) {
  EXPECT_EQ(serve_session(installed(std::nullopt), "abc", look_around), 0);
  EXPECT_THAT(test::log_of("main"), ElementsAre("Install agent failed"));
}

}  // namespace
