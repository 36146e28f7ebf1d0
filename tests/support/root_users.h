#pragma once

/// Whether this Mac root knows more than one user and group. Where the machine allows its caller a
/// single id only, nothing in the root can be given to anyone else.

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/temp_dir.h"

namespace test {

inline bool root_has_users() {
  return read_file("/etc/macroot").find("ids=single") == std::string::npos;
}

}  // namespace test

/// For the start of a test: skips it where there is one user only; in CI that is a failure.
#define KORVEL_NEEDS_USERS()                                                              \
  do {                                                                                    \
    if (!test::root_has_users()) {                                                        \
      ASSERT_EQ(std::getenv("CI"), nullptr) << "this machine's roots hold a single user"; \
      GTEST_SKIP() << "this machine's roots hold a single user";                          \
    }                                                                                     \
  } while (false)
