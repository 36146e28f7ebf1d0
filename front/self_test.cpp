#include "front/self_test.h"

#include <sys/stat.h>

#include <cstdlib>

#include "front/installation.h"
#include "front/session_folder.h"
#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/time.h"
#include "muro/sys/xfile.h"

namespace {

constexpr const char* kTestFile = "/tmp/test1245.dat";
constexpr const char* kClientBundle = "/Applications/Korvel.app";
constexpr unsigned long long kWhileInstalled_us = 10'000'000;

// Between this look and the opening a link could still appear; the test is run by hand, on a
// machine under test.
bool is_link(const char* path) {
  struct stat status;
  return ::lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

void write_test_file() {
  if (is_link(kTestFile)) throw muro::exception::function("createTestFile");
  muro::xfile file(kTestFile, muro::xfile::write_only, true);
  file.write("test");
  file.flush();
  file.close();
}

// The line that tells why must be out before the process is gone.
[[noreturn]] void fail(const muro::fmt_dbg& log, const char* message) {
  log.fmt_verbose(message);
  muro::errlog::wait_for_flush();
  std::exit(1);
}

}  // namespace

void createTestFile() {
  const muro::fmt_dbg log("createTestFile");
  try {
    write_test_file();
  } catch (...) {
    log.fmt_verbose("Failed to create test file");
  }
}

void testMoveFile() {
  const muro::fmt_dbg log("testMoveFile");
  const nil_string moved = moveRestoreFileIfNeeded(kTestFile, restoreIDFromFile(kTestFile));
  if (!moved) fail(log, "Failed to move restore file");
  muro::delete_recursive(muro::dirname(*moved));
}

void testInstantVersion() {
  const muro::fmt_dbg log("testInstantVersion");
  const nil_string restore_id = restoreIDFromFile(kTestFile);
  if (!installService(kClientBundle, kTestFile, restore_id))
    fail(log, "Failed to install service while simulating instant app rnr");
  muro::pause_us(kWhileInstalled_us);
  uninstallAgent(restore_id);
  uninstallService(restore_id);
  // The log's file lies where the helper was started, outside this folder.
  muro::delete_recursive(kTestSessionFolder);
}
