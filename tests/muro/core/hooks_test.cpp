#include "muro/core/hooks.h"

#include <gtest/gtest.h>

TEST(hooks, are_unset_until_a_host_sets_them) {
  EXPECT_EQ(muro::x_make_socket, nullptr);
  EXPECT_EQ(muro::x_pause_us, nullptr);
  EXPECT_EQ(muro::x_errlog_wait_for_flush, nullptr);
}
