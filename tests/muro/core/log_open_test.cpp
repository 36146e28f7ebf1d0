#include "muro/core/log_open.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "muro/sys/files.h"
#include "tests/muro/core/log_fixture.h"
#include "tests/support/descriptors.h"

namespace {

using muro::errlog;
using muro::fmt_dbg;
using muro::log_access;

/// What somebody may have put under the log's name. The echo is off.
class log_open_test : public test::log_test {
 protected:
  template <class Action>
  static std::string stderr_of(Action action) {
    testing::internal::CaptureStderr();
    action();
    errlog::wait_for_flush();
    return testing::internal::GetCapturedStderr();
  }

  /// What the log says of its file, before the lines.
  std::string notice(const std::string& reason) const {
    return line("errlog: log file " + path() + " is not used: " + reason);
  }

  /// Logs two batches; their lines must come out on standard error, after one notice.
  void expect_refused(const std::string& reason) {
    const std::string errors = stderr_of([] {
      log_and_flush("one");
      log_and_flush("two");
    });
    EXPECT_EQ(errors, notice(reason) + line("main: one") + line("main: two"));
  }

  std::string refusal() const {
    std::string why;
    FILE* const stream = muro::open_log(path(), log_access::append, why);
    if (stream != nullptr) std::fclose(stream);
    return stream != nullptr ? "opened" : why;
  }
};

TEST_F(log_open_test, link_is_not_followed) {
  test::write_file(dir / "target", "kept\n");
  ASSERT_EQ(::symlink((dir / "target").c_str(), path().c_str()), 0);
  expect_refused("it is a link");
  EXPECT_EQ(test::read_file(dir / "target"), "kept\n");
}

TEST_F(log_open_test, link_that_is_there_when_the_log_gets_its_name_is_not_followed_either) {
  test::write_file(dir / "target", "kept\n");
  ASSERT_EQ(::symlink((dir / "target").c_str(), path().c_str()), 0);
  errlog::set_log_file(path());
  expect_refused("it is a link");
  EXPECT_EQ(test::read_file(dir / "target"), "kept\n");
}

TEST_F(log_open_test, link_that_leads_nowhere_makes_no_file) {
  ASSERT_EQ(::symlink((dir / "target").c_str(), path().c_str()), 0);
  errlog::set_log_file(path());
  expect_refused("it is a link");
  EXPECT_FALSE(muro::file_exists(dir / "target"));
}

TEST_F(log_open_test, folders_in_front_of_the_name_may_be_links) {
  ASSERT_EQ(::mkdir((dir / "real").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("real", (dir / "linked").c_str()), 0);
  muro::set_log_file_name(dir / "linked/log");
  log_and_flush("x");
  EXPECT_EQ(test::read_file(dir / "real/log"), line("main: x"));
}

TEST_F(log_open_test, pipe_without_a_reader_stops_nothing) {
  ASSERT_EQ(::mkfifo(path().c_str(), 0666), 0);
  expect_refused("it is not a regular file");
}

TEST_F(log_open_test, pipe_with_a_reader_is_told_nothing) {
  ASSERT_EQ(::mkfifo(path().c_str(), 0666), 0);
  const int reader = ::open(path().c_str(), O_RDONLY | O_NONBLOCK);
  expect_refused("it is not a regular file");
  char byte;
  EXPECT_LE(::read(reader, &byte, 1), 0);
  ::close(reader);
}

TEST_F(log_open_test, folder_is_refused) {
  ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
  expect_refused("it is not a regular file");
}

TEST_F(log_open_test, socket_is_refused) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path().copy(address.sun_path, sizeof address.sun_path - 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  expect_refused("it is not a regular file");
  ::close(listener);
}

TEST_F(log_open_test, file_with_a_second_name_is_left_alone) {
  test::write_file(dir / "target", "kept\n");
  ASSERT_EQ(::link((dir / "target").c_str(), path().c_str()), 0);
  expect_refused("it has more than one name");
  EXPECT_EQ(test::read_file(dir / "target"), "kept\n");
}

TEST_F(log_open_test, file_of_another_user_is_left_alone) {
  test::write_file(path(), "kept\n");
  if (::geteuid() != 0 || ::chown(path().c_str(), 501, static_cast<gid_t>(-1)) != 0) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "this machine gives its caller one user id only";
    GTEST_SKIP() << "this machine gives its caller one user id only";
  }
  expect_refused("it belongs to another user");
  EXPECT_EQ(test::read_file(path()), "kept\n");
}

TEST_F(log_open_test, notice_is_one_line_whatever_the_name) {
  muro::set_log_file_name(dir / "a\nb");
  ASSERT_EQ(::mkdir((dir / "a\nb").c_str(), 0700), 0);
  EXPECT_EQ(stderr_of([] { log_and_flush("x"); }),
            line("errlog: log file " + (dir / "a`0ab") + " is not used: it is not a regular file") +
                line("main: x"));
}

TEST_F(log_open_test, lines_of_a_refused_file_are_echoed_once) {
  errlog::set_log_to_stderr(true);
  ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
  expect_refused("it is not a regular file");
}

TEST_F(log_open_test, file_is_used_again_when_its_place_is_free) {
  ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
  stderr_of([] { log_and_flush("one"); });
  ASSERT_EQ(::rmdir(path().c_str()), 0);
  EXPECT_EQ(stderr_of([] { log_and_flush("two"); }), "");
  EXPECT_EQ(file(), line("main: two"));
  ::unlink(path().c_str());
  ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
  EXPECT_EQ(stderr_of([] { log_and_flush("three"); }),
            notice("it is not a regular file") + line("main: three"));
}

TEST_F(log_open_test, file_that_cannot_be_opened_leaves_it_to_the_echo) {
  muro::set_log_file_name("/dev/null/log");
  EXPECT_EQ(stderr_of([] { log_and_flush("x"); }), "");
}

TEST_F(log_open_test, failure_of_the_system_is_no_refusal) {
  const auto story = [] {
    const test::temp_dir own;
    test::write_file(own / "log", "");
    std::string why = "old";
    const test::descriptor_limit none(test::lowest_free());
    CHECK_THAT(muro::open_log(own / "log", log_access::append, why) == nullptr);
    CHECK_THAT(errno == EMFILE && why.empty());
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(log_open_test, name_with_a_zero_byte_opens_no_other_file) {
  std::string why;
  EXPECT_EQ(muro::open_log(path() + std::string("\0x", 2), log_access::append, why), nullptr);
  EXPECT_FALSE(muro::file_exists(path()));
}

TEST_F(log_open_test, made_file_has_the_mode_that_the_umask_leaves) {
  const mode_t before = ::umask(027);
  EXPECT_EQ(refusal(), "opened");
  ::umask(before);
  EXPECT_EQ(std::filesystem::status(path()).permissions(), std::filesystem::perms(0640));
}

TEST_F(log_open_test, reading_makes_no_file) {
  std::string why;
  EXPECT_EQ(muro::open_log(path(), log_access::read, why), nullptr);
  EXPECT_FALSE(muro::file_exists(path()));
}

TEST_F(log_open_test, stream_is_not_inherited) {
  std::string why;
  FILE* const stream = muro::open_log(path(), log_access::append, why);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(::fcntl(::fileno(stream), F_GETFD), FD_CLOEXEC);
  std::fclose(stream);
}

/// Others put things under the name and take them away all the time.
TEST_F(log_open_test, only_own_files_are_opened_while_others_swap_them) {
  test::write_file(dir / "target", "kept\n");
  std::atomic<bool> done{false};
  std::thread swapper([&] {
    while (!done) {
      ::unlink(path().c_str());
      ::symlink((dir / "target").c_str(), path().c_str());
      ::unlink(path().c_str());
      ::link((dir / "target").c_str(), path().c_str());
      ::unlink(path().c_str());
      ::mkfifo(path().c_str(), 0666);
      ::unlink(path().c_str());
      test::write_file(path(), "");
    }
  });
  const std::string errors = stderr_of([] {
    for (int i = 0; i < 500; ++i) log_and_flush("line");
  });
  done = true;
  swapper.join();
  EXPECT_EQ(test::read_file(dir / "target"), "kept\n");
}

}  // namespace
