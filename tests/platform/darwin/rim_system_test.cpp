#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <thread>

#include "platform/platform.h"
#include "tests/platform/darwin/fake/mac.h"

namespace {

using fake::world;

class mac_system : public testing::Test {
 protected:
  void SetUp() override { fake::reset(); }
};

using security_session = mac_system;
using version_selector = mac_system;
using mac_executable_path = mac_system;
using run_loop = mac_system;
using mac_thread_number = mac_system;

TEST_F(security_session, is_that_of_the_caller) {
  const auto session = platform::calling_security_session();
  EXPECT_EQ(session.id, 100021U);
  EXPECT_EQ(session.attributes, 0x6030U);
  EXPECT_EQ(world().calls, std::vector<std::string>{"SessionGetInfo 4294967295"});
}

TEST_F(security_session, has_the_graphic_bit_where_the_contract_looks_for_it) {
  EXPECT_NE(platform::calling_security_session().attributes & platform::kSessionHasGraphicAccess,
            0U);
}

TEST_F(security_session, is_zero_when_the_system_cannot_tell) {
  world().failing = {"SessionGetInfo"};
  EXPECT_EQ(platform::calling_security_session().id, 0U);
  EXPECT_EQ(platform::calling_security_session().attributes, 0U);
}

TEST_F(security_session, is_taken_whatever_the_status) {
  world().session_status = -1;
  EXPECT_EQ(platform::calling_security_session().id, 100021U);
}

TEST_F(version_selector, answers_with_the_number) {
  world().selectors = {{0x73797331, 10}, {0x73797332, 5}, {0x73797333, 8}};
  int value = 0;
  EXPECT_TRUE(platform::older_version_selector(0x73797332, value));
  EXPECT_EQ(value, 5);
}

TEST_F(version_selector, leaves_the_value_alone_even_when_the_system_spoils_its_answer) {
  int value = 42;
  EXPECT_FALSE(platform::older_version_selector(0x73797331, value));
  EXPECT_EQ(value, 42);
}

TEST_F(mac_executable_path, asks_for_the_size_first) {
  world().executable_path = "/Applications/Korvel.app/helper";
  EXPECT_EQ(platform::executable_path(), "/Applications/Korvel.app/helper");
  EXPECT_EQ(world().calls,
            (std::vector<std::string>{"_NSGetExecutablePath 0", "_NSGetExecutablePath 32"}));
}

TEST_F(mac_executable_path, may_be_longer_than_any_limit) {
  world().executable_path = "/" + std::string(5000, 'x');
  EXPECT_EQ(platform::executable_path(), world().executable_path);
}

TEST_F(mac_executable_path, is_nil_when_the_second_call_fails) {
  world().failing = {"_NSGetExecutablePath"};
  EXPECT_EQ(platform::executable_path(), std::nullopt);
}

TEST_F(run_loop, is_entered_once_and_may_end) {
  world().run_loop_ends = true;
  platform::run_main_loop();
  EXPECT_EQ(world().calls, std::vector<std::string>{"CFRunLoopRun"});
}

TEST_F(mac_thread_number, is_asked_for_the_calling_thread) {
  EXPECT_EQ(platform::thread_number(), static_cast<std::uint64_t>(::gettid()));
  std::thread([] {
    EXPECT_EQ(platform::thread_number(), static_cast<std::uint64_t>(::gettid()));
  }).join();
}

}  // namespace
