/// Children: their system calls in this process and in the child, up to the program's start.

#include "muro/sys/process.h"

#include <cstdlib>

#include "tests/budget/budget.h"

namespace {

/// A program's output and exit code.
void child_collected() {
  long long exit_code = -1;
  const std::string text = muro::process::system_immediate("/bin/echo", {"501"}, &exit_code, 20);
  if (text != "501\n" || exit_code != 0) std::abort();
}

/// A program that is let go.
void child_detached() {
  muro::process::system("/bin/true", {}, -1);
}

}  // namespace

int main(int argc, char** argv) {
  return budget::run(argc, argv,
                     {{"child_collected", child_collected}, {"child_detached", child_detached}});
}
