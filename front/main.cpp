#include "front/roles.h"
#include "front/startup.h"
#include "muro/core/errlog.h"

namespace {

int start_and_run() {
  const platform::autorelease_pool pool;
  const muro::errlog::wait_for_flush_task flush;  // over before the pool is drained
  start_runtime();
  return run_role(read_options());
}

}  // namespace

int main(int argc, char** argv) {
  open_standard_descriptors();
  use_default_path();
  platform::set_arguments(argc, argv);
  try {
    return start_and_run();
  } catch (...) {
    // The process ends by its uncaught exception. Without this handler nothing would be unwound
    // before: the log would lose its last lines.
    throw;
  }
}
