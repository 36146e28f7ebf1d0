#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <climits>
#include <cstddef>

#include "platform/platform.h"
#include "tests/support/descriptors.h"
#include "tests/support/forked.h"

namespace {

/// Makes this process's kernel one without the call that closes a range.
bool forbid_close_range() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{4, program};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0 &&
         ::syscall(SYS_close_range, 900, 901, 0) == -1;
}

TEST(close_descriptors_one_by_one, closes_the_range_and_nothing_beside_it) {
  EXPECT_TRUE(test::holds_in_a_fork([] {
    for (const int number : {50, 51, 52, 53}) ::dup2(2, number);
    if (!forbid_close_range()) return false;
    platform::close_descriptors(51, 52);
    return test::is_open(50) && !test::is_open(51) && !test::is_open(52) && test::is_open(53);
  }));
}

TEST(close_descriptors_one_by_one, goes_to_the_last_number_of_the_table) {
  EXPECT_TRUE(test::holds_in_a_fork([] {
    test::descriptor_limit table(1000);
    ::dup2(2, 999);
    if (!forbid_close_range()) return false;
    platform::close_descriptors(3, INT_MAX);
    return test::open_descriptors() == std::set<int>{0, 1, 2};
  }));
}

}  // namespace
