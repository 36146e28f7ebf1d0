#include "muro/sys/event_wait.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <climits>

#include "muro/core/exception.h"
#include "muro/sys/event_wait_internal.h"
#include "muro/sys/pipe.h"
#include "muro/sys/time.h"
#include "tests/support/signal_storm.h"
#include "tests/support/stepping_clock.h"
#include "tests/support/stopwatch.h"

namespace {

/// The outcome of one wait for everything.
struct outcome {
  bool readable = true;
  bool writable = true;
  bool error = true;
};

outcome wait_for_all(int descriptor, long timeout_s) {
  outcome result;
  muro::wait_for_event(descriptor, &result.readable, &result.writable, &result.error, timeout_s);
  return result;
}

bool wait_readable(int descriptor, long timeout_s) {
  bool readable = true;
  muro::wait_for_event(descriptor, &readable, nullptr, nullptr, timeout_s);
  return readable;
}

class wait_for_event : public ::testing::Test {
 protected:
  wait_for_event() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("socketpair");
    near_.reset(ends[0]);
    far_.reset(ends[1]);
  }
  ~wait_for_event() override {
    muro::x_relative_time = nullptr;
    muro::detail::g_poll = ::poll;
  }

  muro::unique_fd near_;
  muro::unique_fd far_;
};

TEST_F(wait_for_event, sees_that_nothing_is_there_at_once) {
  EXPECT_FALSE(wait_readable(near_.get(), 0));
}

TEST_F(wait_for_event, sees_data) {
  EXPECT_EQ(::write(far_.get(), "x", 1), 1);
  EXPECT_TRUE(wait_readable(near_.get(), 0));
  EXPECT_TRUE(wait_readable(near_.get(), 5));
  EXPECT_TRUE(wait_readable(near_.get(), -1));
}

TEST_F(wait_for_event, sees_room_to_write) {
  const outcome seen = wait_for_all(near_.get(), 0);
  EXPECT_FALSE(seen.readable);
  EXPECT_TRUE(seen.writable);
  EXPECT_FALSE(seen.error);
}

TEST_F(wait_for_event, closed_peer_is_readable) {
  far_.reset();
  EXPECT_TRUE(wait_readable(near_.get(), 0));
}

TEST_F(wait_for_event, hang_up_alone_is_readable) {
  muro::pipe_ends pipe;
  ASSERT_TRUE(muro::open_pipe(pipe));
  pipe.write.reset();
  bool readable = false;
  bool error = true;
  muro::wait_for_event(pipe.read.get(), &readable, nullptr, &error, 0);
  EXPECT_TRUE(readable);
  EXPECT_FALSE(error);
}

TEST_F(wait_for_event, broken_pipe_is_an_error) {
  muro::pipe_ends pipe;
  ASSERT_TRUE(muro::open_pipe(pipe));
  pipe.read.reset();
  EXPECT_TRUE(wait_for_all(pipe.write.get(), 0).error);
}

TEST_F(wait_for_event, descriptor_that_is_not_open_is_an_error) {
  const outcome seen = wait_for_all(98765, 5);
  EXPECT_TRUE(seen.error);
  EXPECT_FALSE(seen.readable);
  EXPECT_FALSE(seen.writable);
}

TEST_F(wait_for_event, event_that_was_not_asked_for_is_not_waited_for) {
  EXPECT_EQ(::write(far_.get(), "x", 1), 1);
  bool error = true;
  muro::wait_for_event(near_.get(), nullptr, nullptr, &error, 0);
  EXPECT_FALSE(error);
}

TEST_F(wait_for_event, without_pointers_it_waits_for_the_time_alone) {
  EXPECT_EQ(::write(far_.get(), "x", 1), 1);
  const test::stopwatch watch;
  muro::wait_for_event(near_.get(), nullptr, nullptr, nullptr, 1);
  EXPECT_GE(watch.ms(), 1000);
}

TEST_F(wait_for_event, without_pointers_an_error_ends_the_wait) {
  const test::stopwatch watch;
  muro::wait_for_event(98765, nullptr, nullptr, nullptr, 60);
  EXPECT_LT(watch.ms(), 30000);
}

TEST_F(wait_for_event, time_out_leaves_all_three_false) {
  char filler[4096] = {};
  while (::send(near_.get(), filler, sizeof filler, MSG_DONTWAIT) > 0) {
  }
  const outcome seen = wait_for_all(near_.get(), 0);
  EXPECT_FALSE(seen.readable);
  EXPECT_FALSE(seen.writable);
  EXPECT_FALSE(seen.error);
}

TEST_F(wait_for_event, failure_throws_the_systems_error) {
  muro::detail::g_poll = [](pollfd*, nfds_t, int) {
    errno = EINVAL;
    return -1;
  };
  try {
    wait_readable(near_.get(), 0);
    FAIL() << "no exception";
  } catch (const muro::exception& e) {
    EXPECT_EQ(e.description(),
              ":Error from 'poll' (called in 'wait_for_event'): 22, Invalid argument");
  }
}

TEST_F(wait_for_event, signals_are_no_failure_and_do_not_prolong_the_wait) {
  const test::signal_storm storm;
  const test::stopwatch watch;
  EXPECT_FALSE(wait_readable(near_.get(), 1));
  EXPECT_GE(watch.ms(), 1000);
  EXPECT_LT(watch.ms(), 10000);
  EXPECT_GT(storm.sent(), 5);
}

TEST_F(wait_for_event, wall_clock_that_is_set_neither_shortens_nor_prolongs_the_wait) {
  for (const long step_s : {3600L, -3600L}) {
    const test::stepping_clock clock(step_s);
    const test::signal_storm storm;  // so that the clock is looked at on the way
    const test::stopwatch watch;
    EXPECT_FALSE(wait_readable(near_.get(), 1));
    EXPECT_GE(watch.ms(), 1000) << step_s;
    EXPECT_LT(watch.ms(), 10000) << step_s;
  }
}

TEST_F(wait_for_event, time_that_a_signal_leaves_over_is_never_negative) {
  // A clock that jumps far ahead: after the first signal nothing is left of the wait.
  static std::atomic<long long> now_ms{0};
  muro::x_relative_time = [] { return now_ms += 1000000000000LL; };
  const test::signal_storm storm;
  EXPECT_FALSE(wait_readable(near_.get(), 1000000));
}

TEST_F(wait_for_event, wait_without_limit_outlives_signals) {
  const test::signal_storm storm;
  std::thread writer([&] {
    while (storm.sent() < 20) std::this_thread::yield();
    EXPECT_EQ(::write(far_.get(), "x", 1), 1);
  });
  EXPECT_TRUE(wait_readable(near_.get(), -1));
  writer.join();
  EXPECT_GE(storm.sent(), 20);
}

// 4294968 s are 4294968000 ms, which is 704 in 32 bits.
TEST_F(wait_for_event, seconds_wrap_in_32_bits_as_milliseconds) {
  const test::stopwatch watch;
  EXPECT_FALSE(wait_readable(near_.get(), 4294968));
  EXPECT_GE(watch.ms(), 690);
  EXPECT_LT(watch.ms(), 60000);
}

// 2147484 s are more than 2^31 ms, and so negative.
TEST_F(wait_for_event, seconds_that_wrap_to_a_negative_time_wait_without_limit) {
  std::thread writer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(::write(far_.get(), "x", 1), 1);
  });
  EXPECT_TRUE(wait_readable(near_.get(), 2147484));
  writer.join();
}

TEST_F(wait_for_event, every_negative_time_waits_without_limit) {
  for (const long timeout_s : {-1L, -2L, -1000000L}) {
    std::thread writer([this] {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      EXPECT_EQ(::write(far_.get(), "x", 1), 1);
    });
    EXPECT_TRUE(wait_readable(near_.get(), timeout_s));
    writer.join();
    char byte;
    EXPECT_EQ(::read(near_.get(), &byte, 1), 1);
  }
}

}  // namespace
