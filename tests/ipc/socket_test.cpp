#include "ipc/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "muro/core/exception.h"
#include "tests/support/descriptors.h"

namespace {

/// What the fakes were asked, and what the next ones answer.
struct script {
  std::vector<int> answers;  // the descriptors that the fake socket function gives, in order
  std::vector<int> closed;
  int asked = 0;
  int error = 0;
  std::vector<int> arguments;
  muro::socket_function make = nullptr;
  muro::close_function close = nullptr;
};
script g;

int fake_socket(int domain, int type, int protocol) {
  g.arguments = {domain, type, protocol};
  errno = g.error;
  return g.answers.at(static_cast<std::size_t>(g.asked++));
}

int fake_close(int descriptor) {
  g.closed.push_back(descriptor);
  errno = EBADF;
  return -1;
}

template <int Answer>
int hook(int domain, int type, int protocol, muro::socket_function make,
         muro::close_function close) {
  g.arguments = {domain, type, protocol};
  g.make = make;
  g.close = close;
  return Answer;
}

class make_socket : public ::testing::Test {
 protected:
  make_socket() {
    muro::init_make_socket();
    g = script{};
  }
  ~make_socket() override {
    muro::x_make_socket = muro::x_make_socket2 = muro::x_make_socket3 = nullptr;
    for (const int number : reserved_) muro::release_reserved_descriptor(number);
  }
  void reserve(std::vector<int> numbers) {
    for (const int number : numbers) muro::reserve_descriptor(number);
    reserved_ = numbers;
  }
  static int make_fake() { return muro::make_socket(1, 2, 3, fake_socket, fake_close); }

 private:
  std::vector<int> reserved_;
};

TEST_F(make_socket, makes_a_socket_of_the_system) {
  const int fd = muro::make_socket(AF_UNIX, SOCK_DGRAM, 0, nullptr, nullptr);
  int type = 0;
  socklen_t length = sizeof type;
  EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
  EXPECT_EQ(type, SOCK_DGRAM);
  ::close(fd);
}

TEST_F(make_socket, passes_its_arguments_to_the_socket_function) {
  g.answers = {41};
  EXPECT_EQ(make_fake(), 41);
  EXPECT_EQ(g.arguments, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(g.closed.empty());
}

TEST_F(make_socket, never_gives_the_reserved_next_number_and_closes_it_again) {
  const int next = test::lowest_free();
  reserve({next});
  const int fd = muro::make_socket(AF_UNIX, SOCK_STREAM, 0, nullptr, nullptr);
  EXPECT_GT(fd, next);
  EXPECT_TRUE(test::is_open(fd));
  EXPECT_FALSE(test::is_open(next));
  ::close(fd);
}

TEST_F(make_socket, sets_reserved_numbers_aside_and_closes_them_in_that_order) {
  reserve({40, 41, 42});
  g.answers = {42, 40, 41, 50};
  EXPECT_EQ(make_fake(), 50);
  EXPECT_EQ(g.closed, (std::vector<int>{42, 40, 41}));
}

TEST_F(make_socket, failure_closes_what_was_set_aside_and_keeps_errno) {
  reserve({40, 41});
  g.answers = {41, 40, -1};
  g.error = ENOBUFS;
  EXPECT_EQ(make_fake(), -1);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(g.closed, (std::vector<int>{41, 40}));
}

TEST_F(make_socket, set_aside_descriptors_are_closed_by_the_system_without_a_close_function) {
  const int next = test::lowest_free();
  reserve({next});
  const int fd = muro::make_socket(
      AF_UNIX, SOCK_STREAM, 0, [](int d, int t, int p) { return ::socket(d, t, p); }, nullptr);
  EXPECT_FALSE(test::is_open(next));
  ::close(fd);
}

TEST_F(make_socket, what_the_socket_function_throws_passes_on_with_nothing_left) {
  reserve({40});
  g.answers = {40};
  EXPECT_THROW(make_fake(), std::out_of_range);
  EXPECT_EQ(g.closed, std::vector<int>{40});
}

TEST_F(make_socket, number_taken_from_the_reserved_set_is_given_again) {
  reserve({40});
  muro::release_reserved_descriptor(40);
  g.answers = {40};
  EXPECT_EQ(make_fake(), 40);
}

TEST_F(make_socket, further_initialisation_keeps_the_reserved_set) {
  reserve({40});
  muro::init_make_socket();
  g.answers = {40, 50};
  EXPECT_EQ(make_fake(), 50);
}

TEST_F(make_socket, third_hook_wins_and_gets_both_functions) {
  muro::x_make_socket = hook<1>;
  muro::x_make_socket2 = hook<2>;
  muro::x_make_socket3 = hook<3>;
  EXPECT_EQ(muro::make_socket(7, 8, 9, nullptr, nullptr), 3);
  EXPECT_EQ(g.arguments, (std::vector<int>{7, 8, 9}));
  ASSERT_NE(g.make, nullptr);
  ASSERT_NE(g.close, nullptr);
  const int fd = g.make(AF_UNIX, SOCK_STREAM, 0);
  EXPECT_TRUE(test::is_open(fd));
  EXPECT_EQ(g.close(fd), 0);
  EXPECT_FALSE(test::is_open(fd));
}

TEST_F(make_socket, second_hook_comes_next_and_gets_no_close_function) {
  muro::x_make_socket = hook<1>;
  muro::x_make_socket2 = hook<2>;
  EXPECT_EQ(muro::make_socket(7, 8, 9, nullptr, nullptr), 2);
  EXPECT_NE(g.make, nullptr);
  EXPECT_EQ(g.close, nullptr);
}

TEST_F(make_socket, first_hook_comes_last_and_gets_what_was_passed) {
  muro::x_make_socket = hook<1>;
  EXPECT_EQ(muro::make_socket(7, 8, 9, nullptr, nullptr), 1);
  EXPECT_EQ(g.make, nullptr);
  EXPECT_EQ(g.close, nullptr);
}

TEST_F(make_socket, every_hook_gets_given_functions_as_they_are) {
  for (auto* slot : {&muro::x_make_socket, &muro::x_make_socket2, &muro::x_make_socket3}) {
    *slot = hook<5>;
    EXPECT_EQ(make_fake(), 5);
    EXPECT_EQ(g.make, fake_socket);
    EXPECT_EQ(g.close, fake_close);
  }
}

TEST_F(make_socket, hook_may_give_a_reserved_number) {
  reserve({5});
  muro::x_make_socket = hook<5>;
  EXPECT_EQ(make_fake(), 5);
}

TEST_F(make_socket, hook_failure_is_the_result) {
  muro::x_make_socket3 = hook<-1>;
  EXPECT_EQ(make_fake(), -1);
}

TEST_F(make_socket, socket_function_may_make_a_socket_itself) {
  const auto nested = [](int d, int t, int p) {
    return muro::make_socket(d, t, p, nullptr, nullptr);
  };
  const int fd = muro::make_socket(AF_UNIX, SOCK_STREAM, 0, nested, nullptr);
  EXPECT_TRUE(test::is_open(fd));
  ::close(fd);
}

TEST_F(make_socket, one_retry_loop_runs_at_a_time) {
  static std::atomic<int> inside{0};
  const auto alone = [](int d, int t, int p) {
    EXPECT_EQ(++inside, 1);
    std::this_thread::yield();
    --inside;
    return ::socket(d, t, p);
  };
  const int next = test::lowest_free();
  reserve({next});
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 200; ++n) {
        const int fd = muro::make_socket(AF_UNIX, SOCK_STREAM, 0, alone, nullptr);
        EXPECT_NE(fd, next);
        EXPECT_EQ(::close(fd), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// The state lives as long as the process, so these run in one of their own.
[[noreturn]] void use_unprepared() {
  bool right = muro::make_socket(AF_UNIX, SOCK_STREAM, 0, nullptr, nullptr) == -1 && errno == ENXIO;
  try {
    muro::reserve_descriptor(3);
    right = false;
  } catch (const muro::exception& e) {
    right = right && e.description() == ":Error in 'reserve_descriptor'";
  }
  try {
    muro::release_reserved_descriptor(3);
    right = false;
  } catch (const muro::exception& e) {
    right = right && e.description() == ":Error in 'release_reserved_descriptor'";
  }
  muro::x_make_socket = hook<1>;
  right = right && muro::make_socket(7, 8, 9, nullptr, nullptr) == 1;
  std::_Exit(right ? 0 : 1);
}

TEST(make_socket_death, before_initialisation_fails_clearly_and_hooks_work) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(use_unprepared(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
