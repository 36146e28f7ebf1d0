// Removing many files as the Linux side does it: what they held is given back by a second thread.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "tests/support/temp_dir.h"
#include "tests/support/thread_count.h"

namespace {

TEST(file_remover, starts_a_second_thread_with_the_256th_file_and_ends_it) {
  const test::temp_dir folder;
  const platform::descriptor opened(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY));
  const auto remove = [&](platform::file_remover& files, int number) {
    const std::string name = std::to_string(number);
    test::write_file(folder / name, "content");
    ASSERT_EQ(files.remove(opened.get(), name.c_str()), 0);
  };
  // This one, and under the thread sanitizer one of its own.
  ASSERT_TRUE(test::threads_come_down_to(1) || test::thread_count() == 2);
  const auto before = test::thread_count();
  {
    platform::file_remover files;
    for (int i = 1; i < 256; ++i) remove(files, i);
    EXPECT_EQ(test::thread_count(), before);
    remove(files, 256);
    EXPECT_EQ(test::thread_count(), before + 1);
  }
  EXPECT_TRUE(test::threads_come_down_to(before));
}

}  // namespace
