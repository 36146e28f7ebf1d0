#include "muro/sys/pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/support/broken_pipes.h"

namespace {

TEST(open_pipe, carries_bytes) {
  muro::pipe_ends pipe;
  ASSERT_TRUE(muro::open_pipe(pipe));
  EXPECT_EQ(::write(pipe.write.get(), "x", 1), 1);
  char byte = 0;
  EXPECT_EQ(::read(pipe.read.get(), &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
}

TEST(open_pipe, closes_both_ends_on_exec) {
  muro::pipe_ends pipe;
  ASSERT_TRUE(muro::open_pipe(pipe));
  EXPECT_TRUE(::fcntl(pipe.read.get(), F_GETFD) & FD_CLOEXEC);
  EXPECT_TRUE(::fcntl(pipe.write.get(), F_GETFD) & FD_CLOEXEC);
}

TEST(open_pipe, failure_tells_and_leaves_the_ends) {
  const test::broken_pipes none;
  muro::pipe_ends pipe;
  EXPECT_FALSE(muro::open_pipe(pipe));
  EXPECT_EQ(errno, EMFILE);
  EXPECT_FALSE(pipe.read.is_open());
  EXPECT_FALSE(pipe.write.is_open());
}

}  // namespace
