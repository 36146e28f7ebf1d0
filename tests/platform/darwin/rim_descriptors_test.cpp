#include <gtest/gtest.h>

#include <climits>

#include "platform/platform.h"
#include "tests/platform/darwin/fake/mac.h"
#include "tests/support/descriptors.h"
#include "tests/support/forked.h"

namespace {

using test::holds_in_a_fork;
using test::is_open;

/// A table size that does not reach the descriptors which are open: only a list tells of them.
bool hide_above(int number) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  limit.rlim_cur = static_cast<rlim_t>(number);
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

bool open_up_to(int first, int last) {
  for (int number = first; number <= last; ++number)
    if (::dup2(2, number) != number) return false;
  return true;
}

TEST(close_listed_descriptors, closes_the_range_and_nothing_beside_it) {
  EXPECT_TRUE(holds_in_a_fork([] {
    if (!open_up_to(50, 53)) return false;
    platform::close_descriptors(51, 52);
    return is_open(50) && !is_open(51) && !is_open(52) && is_open(53);
  }));
}

TEST(close_listed_descriptors, finds_those_above_a_limit_that_was_lowered_since) {
  EXPECT_TRUE(holds_in_a_fork([] {
    if (!open_up_to(200, 200) || !hide_above(100)) return false;
    platform::close_descriptors(3, INT_MAX);
    return !is_open(200) && is_open(2);
  }));
}

TEST(close_listed_descriptors, walks_the_table_when_the_system_gives_no_list) {
  EXPECT_TRUE(holds_in_a_fork([] {
    fake::world().failing = {"proc_pidinfo"};
    if (!open_up_to(50, 53)) return false;
    platform::close_descriptors(51, 52);
    return is_open(50) && !is_open(51) && !is_open(52) && is_open(53);
  }));
}

TEST(close_listed_descriptors, walks_the_table_when_more_are_open_than_the_list_holds) {
  EXPECT_TRUE(holds_in_a_fork([] {
    // The list, cut at 1,024, is as full as it gets, or the limit allows none so long.
    const int last = ::getdtablesize() - 1 < 1500 ? ::getdtablesize() - 1 : 1500;
    if (!open_up_to(3, last)) return false;
    platform::close_descriptors(3, INT_MAX);
    return test::open_descriptors() == std::set<int>{0, 1, 2};
  }));
}

}  // namespace
