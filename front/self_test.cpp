#include "front/self_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <string_view>

#include "front/installation.h"
#include "front/session_folder.h"
#include "muro/core/errlog.h"
#include "muro/sys/files.h"
#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"

namespace {

constexpr const char* kTestFile = "/tmp/test1245.dat";
constexpr const char* kClientBundle = "/Applications/Korvel.app";
constexpr unsigned long long kWhileInstalled_us = 10'000'000;

// A regular file with this one name: everyone may write to /tmp, and root must not write into a file
// that a link of whatever kind leads to. A pipe without a reader fails to open.
bool is_own_file(int file) {
  struct stat status;
  return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
}

// Nothing is cut off before it is known what has been opened.
bool write_test_file() {
  constexpr int kNoLink = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  constexpr std::string_view kContent = "test";
  muro::unique_fd file(::open(kTestFile, kNoLink, 0666));
  return file.is_open() && is_own_file(file.get()) && ::ftruncate(file.get(), 0) == 0 &&
         ::write(file.get(), kContent.data(), kContent.size()) == std::ssize(kContent) &&
         ::close(file.release()) == 0;
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
  if (!write_test_file()) log.fmt_verbose("Failed to create test file");
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
