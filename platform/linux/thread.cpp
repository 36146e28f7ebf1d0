#include <unistd.h>

#include "platform/platform.h"

namespace platform {

std::uint64_t thread_number() {
  return static_cast<std::uint64_t>(::gettid());
}

}  // namespace platform
