#pragma once

/// What the buffer's tests share.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "netbuf/buffer.h"
#include "netbuf/netbuf.h"
#include "netbuf/netbuf_imp.h"

namespace test {

/// Tests that need the built-in table in force, whichever test ran before.
class with_builtin : public testing::Test {
 protected:
  static void SetUpTestSuite() { netbuf_imp::install_builtin(); }
};

/// Runs the statement in a process in which nothing is installed yet; its expectations count.
#define EXPECT_IN_FRESH_PROCESS(statement)                \
  do {                                                    \
    GTEST_FLAG_SET(death_test_style, "threadsafe");       \
    EXPECT_EXIT(                                          \
        {                                                 \
          statement;                                      \
          std::exit(testing::Test::HasFailure() ? 1 : 0); \
        },                                                \
        testing::ExitedWithCode(0), "");                  \
  } while (false)

inline netbuf from_text(const std::string& text) {
  netbuf made;
  made.append(text);
  return made;
}

/// The content, without the pull-up of `to_string`.
inline std::string content(const netbuf& from) {
  std::string text(static_cast<std::size_t>(from.size()), '\0');
  from.copy_front(text.data(), netbuf::everything);
  return text;
}

/// The built-in object behind a buffer.
inline netbuf_imp::buffer& object(netbuf& of) {
  return *static_cast<netbuf_imp::buffer*>(of.object());
}

inline std::size_t view_count(netbuf& of) {
  return object(of).view_count();
}

inline const netbuf_imp::view& view_at(netbuf& of, std::size_t i) {
  return object(of).view_at(i);
}

inline std::vector<std::int32_t> view_lengths(netbuf& of) {
  std::vector<std::int32_t> lengths;
  for (std::size_t i = 0; i < view_count(of); ++i) lengths.push_back(view_at(of, i).length());
  return lengths;
}

/// A buffer of one view for each text.
inline netbuf of_views(const std::vector<std::string>& texts) {
  netbuf joined;
  for (const std::string& text : texts) joined.append(from_text(text));
  return joined;
}

}  // namespace test
