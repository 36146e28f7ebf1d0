// What is linked with this runs on a macOS without the newer calls.

#include "platform/darwin/newer_calls.h"

namespace {

bool forget_newer_calls() {
  const auto thread_fchdir = platform::detail::calls().thread_fchdir;
  platform::detail::calls() = {};
  platform::detail::calls().thread_fchdir = thread_fchdir;
  return true;
}

[[maybe_unused]] const bool forgotten = forget_newer_calls();

}  // namespace
