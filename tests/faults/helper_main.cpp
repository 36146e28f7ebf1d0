// The helper's own main, built as `product_main` and started from here: with a mark that the tracer
// waits for, with pauses that take next to no time, and with a list of the log lines that were
// accepted.

#include <sys/syscall.h>
#include <time.h>

#include "muro/core/errlog.h"
#include "muro/core/hooks.h"
#include "tests/faults/accepted_list.h"
#include "tests/faults/tracer.h"

int product_main(int argc, char** argv);

namespace {

// Long enough for a child to get on meanwhile: some pauses are the steps of a wait.
void pause_shortly(unsigned long long) {
  const timespec moment{0, 300000};
  ::nanosleep(&moment, nullptr);
}

// Called before the line is queued, so that none is in the log that is not in the list.
int accept(const char* text, std::size_t length) {
  faults::accept_line(text, length);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  faults::open_accepted_list();
  muro::errlog::set_log_filter(accept);
  muro::x_pause_us = pause_shortly;
  ::syscall(faults::kMark);
  return product_main(argc, argv);
}
