#include "front/startup.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// The child makes system calls only; its exit status tells which descriptors are on the null device
// afterwards, one bit each.
int on_null_device_after_closing(bool in, bool out, bool error) {
  const pid_t child = ::fork();
  if (child == 0) {
    struct stat null;
    struct stat status;
    int bits = 0;
    if (in) ::close(0);
    if (out) ::close(1);
    if (error) ::close(2);
    open_standard_descriptors();
    ::stat("/dev/null", &null);
    for (int i = 0; i < 3; ++i)
      if (::fstat(i, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == null.st_rdev)
        bits |= 1 << i;
    ::_exit(bits);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WEXITSTATUS(status);
}

int on_null_device() {
  return on_null_device_after_closing(false, false, false);
}

TEST(standard_descriptors, closed_ones_are_opened_on_the_null_device) {
  EXPECT_EQ(on_null_device_after_closing(true, true, true), 7);
}

TEST(standard_descriptors, open_ones_are_left_alone) {
  const int before = on_null_device();
  EXPECT_EQ(on_null_device_after_closing(true, false, false), before | 1);
  EXPECT_EQ(on_null_device_after_closing(false, true, false), before | 2);
  EXPECT_EQ(on_null_device_after_closing(false, false, true), before | 4);
  EXPECT_EQ(on_null_device_after_closing(true, false, true), before | 5);
}

TEST(use_default_path, sets_the_folders_that_launchd_gives_its_jobs) {
  const std::string before = std::getenv("PATH");
  for (const char* had : {"/home/mallory/bin:/usr/bin", ""}) {
    ::setenv("PATH", had, 1);
    use_default_path();
    EXPECT_STREQ(std::getenv("PATH"), "/usr/bin:/bin:/usr/sbin:/sbin");
  }
  ::setenv("PATH", before.c_str(), 1);
}

}  // namespace
