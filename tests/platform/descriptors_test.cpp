#include <gtest/gtest.h>

#include <climits>

#include "platform/platform.h"
#include "tests/support/descriptors.h"
#include "tests/support/forked.h"

namespace {

using test::holds_in_a_fork;
using test::is_open;

TEST(close_descriptors, closes_the_range_and_nothing_beside_it) {
  EXPECT_TRUE(holds_in_a_fork([] {
    for (const int number : {50, 51, 52, 53, 54}) ::dup2(2, number);
    platform::close_descriptors(51, 53);
    return is_open(50) && !is_open(51) && !is_open(52) && !is_open(53) && is_open(54) && is_open(2);
  }));
}

TEST(close_descriptors, range_of_one_is_that_one) {
  EXPECT_TRUE(holds_in_a_fork([] {
    for (const int number : {50, 51, 52}) ::dup2(2, number);
    platform::close_descriptors(51, 51);
    return is_open(50) && !is_open(51) && is_open(52);
  }));
}

TEST(close_descriptors, does_not_mind_numbers_that_are_not_open) {
  EXPECT_TRUE(holds_in_a_fork([] {
    ::dup2(2, 60);
    platform::close_descriptors(50, 59);
    return is_open(60);
  }));
}

TEST(close_descriptors, goes_to_the_end_of_the_table) {
  EXPECT_TRUE(holds_in_a_fork([] {
    const int last = ::getdtablesize() - 1 < 900 ? ::getdtablesize() - 1 : 900;
    ::dup2(2, last);
    platform::close_descriptors(3, INT_MAX);
    return test::open_descriptors() == std::set<int>{0, 1, 2};
  }));
}

}  // namespace
