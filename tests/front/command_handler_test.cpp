#include "front/command_handler.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>

#include "front/installation.h"
#include "ipc/packet.h"
#include "tests/front/mac.h"
#include "tests/support/frame_client.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned long long kAfterLaunchd_us = 200000;

class command_handler : public test::mac {
 protected:
  /// A handler of the session `own`, asked directly; the reply is always empty.
  void ask(const std::string& own, const std::string& body) {
    ipc_communicator handler("front_test", own);
    EXPECT_EQ(handler.handle_request(body), "");
  }
  void send_register(const std::string& restore_file) {
    ask("", test::packet("rnr_register", restore_file));
  }
  void resign(const std::string& own, const std::string& restore_file) {
    ask(own, test::packet("rnr_resign", restore_file));
  }
  /// All that a registered session with a daemon of its own has.
  static void install_session(const std::string& id) {
    for (const std::string& file :
         {test::agent_file(id), test::daemon_file(id), test::session_file(id)})
      test::make_file(file);
  }
};

TEST_F(command_handler, serves_its_endpoint_for_everyone) {
  test::install_client();
  test::make_file("/tmp/abc.dat", "state");
  const ipc_communicator handler("front_test", "");
  EXPECT_EQ(test::mode_of("/tmp/front_test.ipc"), 0666U);
  EXPECT_EQ(test::request("front_test", test::packet("rnr_register", "/tmp/abc.dat")), "");
  EXPECT_TRUE(test::exists(test::agent_file("abc")));
}

TEST_F(command_handler, takes_its_socket_away_when_it_goes) {
  { const ipc_communicator handler("front_test", ""); }
  EXPECT_FALSE(test::exists("/tmp/front_test.ipc"));
}

TEST_F(command_handler, endpoint_that_cannot_be_opened_is_no_error) {
  test::make_file("/tmp/front_test.ipc/in the way");
  ipc_communicator handler("front_test", "");
  EXPECT_EQ(handler.handle_request(""), "");
}

TEST_F(command_handler, register_moves_the_restore_file_and_installs_the_agent) {
  test::install_client();
  test::make_file("/tmp/abc.dat", "state");
  send_register("/tmp/abc.dat");
  EXPECT_FALSE(test::exists("/tmp/abc.dat"));
  EXPECT_EQ(test::content_of(test::session_file("abc")), "state");
  EXPECT_THAT(test::arguments_in(test::agent_file("abc")),
              ElementsAre(test::kClientExecutable, "--connect-restore", test::session_file("abc"),
                          "--on-connect", "desktop?restart=continue", "--auto-close",
                          "--wait-for-console"));
  EXPECT_THAT(test::log_of("commandReceived"), IsEmpty());
}

TEST_F(command_handler, register_without_a_client_touches_nothing) {
  test::make_file("/tmp/abc.dat");
  send_register("/tmp/abc.dat");
  EXPECT_THAT(test::log_lines(), ElementsAre("commandReceived: Korvel executable not found"));
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
}

TEST_F(command_handler, register_of_a_missing_file_fails) {
  test::install_client();
  send_register("/tmp/abc.dat");
  EXPECT_THAT(test::log_of("commandReceived"), ElementsAre("Failed to move restore file"));
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
}

TEST_F(command_handler, register_tells_when_the_agent_is_not_there) {
  test::install_client();
  test::make_file("/tmp/abc.dat");
  test::remove_tree("/Library/LaunchAgents");
  send_register("/tmp/abc.dat");
  EXPECT_THAT(test::log_of("commandReceived"), ElementsAre("Failed to install agent"));
  EXPECT_TRUE(test::exists(test::session_file("abc")));
}

TEST_F(command_handler, register_twice_keeps_the_first_restore_file) {
  test::install_client();
  test::make_file("/tmp/abc.dat", "first");
  send_register("/tmp/abc.dat");
  test::make_file("/tmp/abc.dat", "second");
  send_register("/tmp/abc.dat");
  EXPECT_THAT(test::log_of("commandReceived"), ElementsAre("Failed to move restore file"));
  EXPECT_EQ(test::content_of(test::session_file("abc")), "first");
}

TEST_F(command_handler, resign_of_the_own_session_removes_all_of_it) {
  install_session("abc");
  resign("abc", "/anywhere/abc.dat");
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
  EXPECT_FALSE(test::exists(test::daemon_file("abc")));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/abc"));
  EXPECT_THAT(test::log_of("commandReceived"), IsEmpty());
}

TEST_F(command_handler, resign_of_another_session_removes_its_agent_only) {
  install_session("abc");
  install_session("own");
  resign("own", "/tmp/abc.dat");
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
  for (const std::string& file :
       {test::daemon_file("abc"), test::session_file("abc"), test::agent_file("own"),
        test::daemon_file("own"), test::session_file("own")})
    EXPECT_TRUE(test::exists(file)) << file;
}

TEST_F(command_handler, resign_to_the_shared_helper_removes_the_agent_only) {
  install_session("abc");
  resign("", "/tmp/abc.dat");
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
  EXPECT_TRUE(test::exists(test::session_file("abc")));
}

TEST_F(command_handler, own_session_is_compared_byte_by_byte) {
  install_session("abc");
  resign("ABC", "/tmp/abc.dat");
  EXPECT_TRUE(test::exists(test::session_file("abc")));
}

TEST_F(command_handler, resign_whose_agent_stays_keeps_the_own_daemon) {
  install_session("abc");
  test::on_pause([](unsigned long long us) {
    if (us == kAfterLaunchd_us) test::make_file(test::agent_file("abc"));
  });
  resign("abc", "/tmp/abc.dat");
  EXPECT_THAT(test::log_of("commandReceived"),
              ElementsAre("Failed to uninstall agent for /tmp/abc.dat"));
  EXPECT_TRUE(test::exists(test::daemon_file("abc")));
  EXPECT_TRUE(test::exists(test::session_file("abc")));
}

TEST_F(command_handler, resign_of_an_unknown_session_succeeds_quietly) {
  resign("", "/tmp/abc.dat");
  EXPECT_THAT(test::log_of("commandReceived"), IsEmpty());
}

// Arguments that give no ID, or one that names no session.
const test::lines kBadArguments = {"",          "/tmp/abc",      "/tmp/abc.txt",
                                   "/tmp/.dat", "/..dat",        "/...dat",
                                   ".dat",      "/tmp/abc.dat/", std::string("/tmp/a\0b.dat", 12)};

TEST_F(command_handler, register_with_a_bad_argument_fails_and_installs_nothing) {
  test::install_client();
  for (const char* file : {"/tmp/abc", "/tmp/abc.txt", "/tmp/.dat", "/..dat", "/...dat"})
    test::make_file(file);
  for (const std::string& argument : kBadArguments) send_register(argument);
  EXPECT_EQ(test::log_of("commandReceived"),
            test::lines(kBadArguments.size(), "Failed to move restore file"));
  for (const char* file : {"/tmp/abc", "/tmp/abc.txt", "/tmp/.dat", "/..dat", "/...dat"})
    EXPECT_TRUE(test::exists(file)) << file;
  EXPECT_FALSE(test::exists("/Library/VeskRuntime"));
  EXPECT_THAT(test::tree("/Library/LaunchAgents"), IsEmpty());
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
  for (const char* file : {"/..dat", "/...dat"}) test::remove_tree(file);
}

TEST_F(command_handler, resign_with_a_bad_argument_fails_and_removes_nothing) {
  install_session("abc");
  for (const char* id : {"", ".", ".."}) {
    test::make_file(test::agent_file(id));
    test::make_file(test::daemon_file(id));
  }
  for (const std::string& argument : kBadArguments) {
    resign("", argument);
    resign("..", argument);
  }
  const test::lines logged = test::log_of("commandReceived");
  ASSERT_EQ(logged.size(), 2 * kBadArguments.size());
  EXPECT_EQ(logged[6], "Failed to uninstall agent for /tmp/.dat");
  for (const char* id : {"", ".", ".."}) {
    EXPECT_TRUE(test::exists(test::agent_file(id)));
    EXPECT_TRUE(test::exists(test::daemon_file(id)));
  }
  EXPECT_TRUE(test::exists(test::session_file("abc")));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

TEST_F(command_handler, zero_byte_does_not_turn_the_argument_into_another_file) {
  test::install_client();
  test::make_file("/tmp/shadow");
  send_register(std::string("/tmp/shadow\0/abc.dat", 20));
  EXPECT_TRUE(test::exists("/tmp/shadow"));
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
}

// Of the argument to resign only the last name counts, so a zero byte in front of it changes nothing
// about it.
TEST_F(command_handler, zero_byte_anywhere_in_the_argument_changes_nothing) {
  test::install_client();
  test::make_file("/tmp/abc.dat");
  install_session("abc");
  const std::string whole = "/tmp/abc.dat";
  for (std::size_t i = 0; i <= whole.size(); ++i) {
    const std::string argument = whole.substr(0, i) + '\0' + whole.substr(i);
    send_register(argument);
    if (i >= 5) resign("abc", argument);
  }
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
  for (const std::string& file :
       {test::agent_file("abc"), test::daemon_file("abc"), test::session_file("abc")})
    EXPECT_TRUE(test::exists(file)) << file;
  EXPECT_THAT(test::tree("/Library/VeskRuntime/sessions"), ElementsAre("abc", "abc/abc.dat"));
  EXPECT_THAT(test::launchctl_calls(), IsEmpty());
}

TEST_F(command_handler, zero_byte_in_the_command_makes_it_another_one) {
  install_session("abc");
  for (const std::string& name : {std::string("rnr_resign\0", 11), std::string("\0rnr_resign", 11),
                                  std::string("rnr_\0resign", 11)})
    ask("abc", test::packet(name, "/tmp/abc.dat"));
  EXPECT_TRUE(test::exists(test::session_file("abc")));
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

// A session whose ID has the byte in it comes and goes as any other, and nothing beside it is
// touched. Three bytes are special: behind a slash or backslash the name begins, and the zero byte
// is in no file's name.
TEST_F(command_handler, every_byte_in_an_id_is_a_byte_of_its_name) {
  test::install_client();
  for (int value = 1; value < 256; ++value) {
    const std::string id = std::string("a") + static_cast<char>(value) + "b";
    const std::string named = value == '/' || value == '\\' ? "b" : id;
    fs::create_directories("/tmp/a");
    test::make_file("/tmp/" + id + ".dat", "state");
    send_register("/tmp/" + id + ".dat");
    EXPECT_EQ(test::content_of(test::session_file(named)), "state") << value;
    EXPECT_THAT(test::tree("/Library/LaunchAgents"),
                ElementsAre("com.norvane.korvel.restart." + named + ".plist"))
        << value;
    EXPECT_FALSE(test::exists("/tmp/" + id + ".dat")) << value;
    test::make_file(test::daemon_file(named));
    resign(named, "/gone/" + id + ".dat");
    EXPECT_THAT(test::tree("/Library/LaunchAgents"), IsEmpty()) << value;
    EXPECT_THAT(test::tree("/Library/VeskRuntime/sessions"), IsEmpty()) << value;
  }
  EXPECT_THAT(test::log_of("commandReceived"), IsEmpty());
  test::remove_tree("/tmp/a");
}

TEST_F(command_handler, id_of_one_byte_names_a_session_unless_it_is_the_dot) {
  test::install_client();
  for (int value = 1; value < 256; ++value) {
    if (value == '/' || value == '\\') continue;
    const std::string id(1, static_cast<char>(value));
    test::make_file("/tmp/" + id + ".dat");
    send_register("/tmp/" + id + ".dat");
    EXPECT_EQ(test::exists(test::session_file(id)), id != ".") << value;
    test::make_file(test::daemon_file(id));
    resign(id, "/tmp/" + id + ".dat");
    EXPECT_FALSE(test::exists("/Library/VeskRuntime/sessions/" + id) && id != ".") << value;
  }
  EXPECT_THAT(
      test::log_of("commandReceived"),
      ElementsAre("Failed to move restore file", "Failed to uninstall agent for /tmp/..dat"));
  EXPECT_TRUE(test::exists("/tmp/..dat"));
  test::remove_tree("/tmp/..dat");
}

TEST_F(command_handler, unknown_command_changes_nothing) {
  install_session("abc");
  test::install_client();
  for (const char* name : {"", "rnr_", "rnr_registered", "RNR_RESIGN", "rnr_resign "})
    ask("abc", test::packet(name, "/tmp/abc.dat"));
  EXPECT_THAT(test::log_lines(), IsEmpty());
  EXPECT_TRUE(test::exists(test::agent_file("abc")));
}

TEST_F(command_handler, malformed_packet_is_logged_and_answered) {
  std::string one_string;
  muro_packet<std::string>::push(one_string, "rnr_register");
  for (const std::string& body :
       {std::string(), one_string, std::string("\xFF"), std::string("\x09"), std::string("ab")})
    ask("", body);
  EXPECT_EQ(test::log_of("commandReceived"), test::lines(5, "exception"));
}

TEST_F(command_handler, fields_below_the_two_are_not_looked_at) {
  test::make_file(test::agent_file("abc"));
  ask("", "\xFF\xFF" + test::packet("rnr_resign", "/tmp/abc.dat"));
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
}

TEST_F(command_handler, any_exception_is_logged_and_answered) {
  test::on_pause([](unsigned long long) { throw std::runtime_error("x"); });
  resign("", "/tmp/abc.dat");
  test::on_pause([](unsigned long long) { throw std::bad_alloc(); });
  resign("", "/tmp/abc.dat");
  test::on_pause([](unsigned long long) { throw 7; });
  resign("", "/tmp/abc.dat");
  EXPECT_EQ(test::log_of("commandReceived"), test::lines(3, "exception"));
}

TEST_F(command_handler, goes_on_serving_after_a_malformed_packet) {
  test::make_file(test::agent_file("abc"));
  const ipc_communicator handler("front_test", "");
  EXPECT_EQ(test::request("front_test", "\xFF"), "");
  EXPECT_EQ(test::request("front_test", test::packet("rnr_resign", "/tmp/abc.dat")), "");
  EXPECT_FALSE(test::exists(test::agent_file("abc")));
}

TEST_F(command_handler, requests_that_wait_from_the_first_moment_see_a_whole_handler) {
  for (int i = 0; i < 20; ++i) {
    install_session("abc");
    const ipc_communicator handler("front_test", "abc");
    ASSERT_EQ(test::request("front_test", test::packet("rnr_resign", "/tmp/abc.dat")), "");
    ASSERT_FALSE(test::exists(test::session_file("abc")));
  }
}

// The handler is destroyed while a request is being executed. Whatever the timing, that request
// ends on a whole handler; the pause within it only makes the other order likely to be seen.
TEST_F(command_handler, destruction_waits_for_the_request_in_hand) {
  const std::string id = "an-id-too-long-to-lie-within-its-string-object";
  install_session(id);
  std::atomic<bool> in_hand = false;
  std::atomic<bool> going = false;
  test::on_pause([&](unsigned long long) {
    in_hand = true;
    while (!going) std::this_thread::yield();
    ::usleep(20000);
  });
  auto handler = std::make_unique<ipc_communicator>("front_test", id);
  test::frame_client client("/tmp/front_test.ipc");
  ASSERT_TRUE(client.send_frame(test::packet("rnr_resign", "/tmp/" + id + ".dat")));
  ASSERT_TRUE(test::wait_until([&] { return in_hand.load(); }));
  going = true;
  handler.reset();
  EXPECT_FALSE(test::exists(test::session_file(id)));
  EXPECT_THAT(test::log_of("commandReceived"), IsEmpty());
}

TEST(workspace_listener, does_nothing) {
  WorkspaceListener().workspaceNotificationReceived();
}

}  // namespace
