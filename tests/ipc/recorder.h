#pragma once

/// What the tests of endpoint and server share: names of endpoints that nobody else uses, and log
/// lines as they are accepted.

#include <string>
#include <vector>

#include "ipc/socket.h"
#include "muro/core/errlog.h"
#include "tests/support/unique_name.h"

namespace test {

/// The name of an endpoint in /tmp that is this test's alone.
inline std::string endpoint_name() {
  muro::init_make_socket();
  return unique_name("korvel-test-");
}

inline std::string endpoint_path(const std::string& name) {
  return "/tmp/" + name + ".ipc";
}

/// Collects accepted log lines instead of having them written.
class log_lines {
 public:
  log_lines() {
    lines().clear();
    muro::errlog::set_log_filter([](const char* text, std::size_t length) {
      lines().emplace_back(text, length);
      return 0;
    });
  }
  ~log_lines() { muro::errlog::set_log_filter(nullptr); }
  log_lines(const log_lines&) = delete;
  log_lines& operator=(const log_lines&) = delete;

  const std::vector<std::string>& all() const { return lines(); }

 private:
  static std::vector<std::string>& lines() {
    static std::vector<std::string> kept;
    return kept;
  }
};

}  // namespace test
