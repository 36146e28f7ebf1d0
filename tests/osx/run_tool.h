#pragma once

/// Runs an independent tool over a text, for tests that compare with it.

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "tests/support/temp_dir.h"

namespace test {

struct tool_result {
  int status;          // 127: the tool is not there
  std::string output;  // standard output and error
};

/// Runs `command` in a shell, with every "@" in it replaced by the path of a file that holds
/// `input`. A tool that is missing fails with 127: it is never taken for a pass.
inline tool_result run_tool(std::string command, const std::string& input) {
  const temp_dir folder;
  const std::string path = folder / "input";
  write_file(path, input);
  for (std::size_t at = 0; (at = command.find('@', at)) != std::string::npos; at += path.size()) {
    command.replace(at, 1, path);
  }
  FILE* const stream = ::popen((command + " 2>&1").c_str(), "r");
  if (stream == nullptr) return {127, "popen"};
  tool_result result{0, ""};
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, stream)) > 0;) {
    result.output.append(buffer, n);
  }
  const int status = ::pclose(stream);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace test
