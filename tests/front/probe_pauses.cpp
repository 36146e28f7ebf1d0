// Linked into front_probe beside the helper's own main: every pause is appended to the file that
// FRONT_PAUSES names, one number a line, instead of taking its time. FRONT_GONE_AT_PAUSE names a
// file to remove at a pause of 200 ms. FRONT_THROW_AT_PAUSE makes such a pause log more lines than
// can be out at once, the last one "last words", and throw.

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "muro/core/errlog.h"
#include "muro/sys/time.h"

namespace {

constexpr unsigned long long kAfterLaunchd_us = 200000;

[[noreturn]] void log_and_throw() {
  const muro::fmt_dbg log("probe");
  for (int i = 0; i < 5000; ++i) log.fmt_verbose("line %1%", i);
  log.fmt_verbose("last words");
  throw std::runtime_error("pause");
}

void record(unsigned long long microseconds) {
  if (const char* file = std::getenv("FRONT_PAUSES"))
    std::ofstream(file, std::ios::app) << microseconds << "\n";
  if (microseconds != kAfterLaunchd_us) return;
  if (const char* gone = std::getenv("FRONT_GONE_AT_PAUSE")) ::unlink(gone);
  if (std::getenv("FRONT_THROW_AT_PAUSE") != nullptr) log_and_throw();
}

[[maybe_unused]] const bool installed = [] {
  muro::x_pause_us = record;
  return true;
}();

}  // namespace
