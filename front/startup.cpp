#include "front/startup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "ipc/socket.h"
#include "muro/core/errlog.h"
#include "muro/core/init.h"
#include "muro/sys/child_start.h"
#include "muro/sys/files.h"

namespace {

constexpr unsigned long long kLogSize_bytes = 0x100000;
constexpr int kOldLogFiles = 1;

bool is_open(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) != -1;
}

}  // namespace

// The system hands out the lowest number that is free. Not close-on-exec: children inherit these.
void open_standard_descriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
    if (!is_open(descriptor) && ::open("/dev/null", O_RDWR) < 0) return;
}

void use_default_path() {
  ::setenv("PATH", process_priv::kChildPath, 1);
}

void log_beside_executable(const char* name) {
  muro::errlog::set_log_file(muro::dirname(muro::get_exe_path()) + "/" + name);
}

void start_runtime() {
  // Deliberate: never freed. It stands for the runtime, which lives as long as the process.
  [[maybe_unused]] static const muro::init* const runtime = new muro::init;
  muro::init_make_socket();
  log_beside_executable("korvel_helper.out");
  muro::errlog::set_log_rotate(kLogSize_bytes, kOldLogFiles);
}
