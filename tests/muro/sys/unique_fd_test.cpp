#include "muro/sys/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

bool is_open(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}
int open_null() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

TEST(unique_fd, closes_when_it_goes) {
  int number = -1;
  {
    const muro::unique_fd fd(open_null());
    number = fd.get();
    EXPECT_TRUE(is_open(number));
  }
  EXPECT_FALSE(is_open(number));
}

TEST(unique_fd, keeps_errno_when_it_closes) {
  errno = ENOTTY;
  { const muro::unique_fd fd(open_null()); }
  EXPECT_EQ(errno, ENOTTY);
}

TEST(unique_fd, passes_on_by_moving) {
  muro::unique_fd from(open_null());
  const int number = from.get();
  muro::unique_fd to(std::move(from));
  EXPECT_FALSE(from.is_open());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(to.get(), number);
  muro::unique_fd other(open_null());
  other = std::move(to);
  EXPECT_EQ(other.get(), number);
  EXPECT_TRUE(is_open(number));
}

TEST(unique_fd, closes_the_old_one_when_it_takes_another) {
  muro::unique_fd fd(open_null());
  const int first = fd.get();
  const int second = open_null();
  fd.reset(second);
  EXPECT_FALSE(is_open(first));
  EXPECT_EQ(fd.get(), second);
}

TEST(unique_fd, gives_up_without_closing) {
  muro::unique_fd fd(open_null());
  const int number = fd.release();
  EXPECT_FALSE(fd.is_open());
  EXPECT_TRUE(is_open(number));
  ::close(number);
}
