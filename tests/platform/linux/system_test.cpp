#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace {

class security_session : public testing::Test {
 protected:
  void TearDown() override {
    ::unsetenv("XDG_SESSION_ID");
    ::unsetenv("XDG_SESSION_TYPE");
  }
  static platform::security_session with(const char* id, const char* type) {
    ::setenv("XDG_SESSION_ID", id, 1);
    ::setenv("XDG_SESSION_TYPE", type, 1);
    return platform::calling_security_session();
  }
};

TEST_F(security_session, is_zero_without_a_session) {
  TearDown();
  EXPECT_EQ(platform::calling_security_session().id, 0U);
  EXPECT_EQ(platform::calling_security_session().attributes, 0U);
}

TEST_F(security_session, takes_its_number_from_the_environment) {
  EXPECT_EQ(with("7", "").id, 7U);
  EXPECT_EQ(with("4294967295", "").id, 4294967295U);
}

TEST_F(security_session, id_that_is_no_number_is_zero) {
  for (const char* id : {"", "c2", "7a", "-1", "4294967296", "99999999999999999999"})
    EXPECT_EQ(with(id, "").id, 0U) << id;
}

TEST_F(security_session, display_servers_have_graphic_access) {
  EXPECT_EQ(with("1", "x11").attributes, platform::kSessionHasGraphicAccess);
  EXPECT_EQ(with("1", "wayland").attributes, platform::kSessionHasGraphicAccess);
  EXPECT_EQ(with("1", "tty").attributes, 0U);
}

TEST(older_version_selector, has_no_answer_at_all) {
  int value = 7;
  for (const std::uint32_t selector : {0x73797331U, 0x73797332U, 0x73797333U})
    EXPECT_FALSE(platform::older_version_selector(selector, value));
  EXPECT_EQ(value, 7);
}

TEST(is_still_named, until_the_entry_it_was_opened_by_goes) {
  const test::temp_dir folder;
  test::write_file(folder / "a", "");
  ASSERT_EQ(::link((folder / "a").c_str(), (folder / "b").c_str()), 0);
  const int file = ::open((folder / "b").c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_TRUE(platform::is_still_named(file, "b"));
  ASSERT_EQ(::unlink((folder / "b").c_str()), 0);
  EXPECT_FALSE(platform::is_still_named(file, "b"));
  ASSERT_EQ(::link((folder / "a").c_str(), (folder / "b").c_str()), 0);
  EXPECT_FALSE(platform::is_still_named(file, "b"));
  ::close(file);
  EXPECT_TRUE(platform::is_still_named(file, "b"));  // nobody can tell
}

}  // namespace
