#include "tests/platform/darwin/fake/mac.h"

#include <CoreServices/CoreServices.h>
#include <Security/AuthSession.h>
#include <dirent.h>
#include <libproc.h>
#include <mach-o/dyld.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "tests/platform/darwin/fake/include/mac_pthread.h"

namespace fake {

mac& world() {
  static mac* const one = new mac;
  return *one;
}

void reset() {
  world() = mac();
}

namespace {

// Kept from before main, as the loader of a Mac does: the file may be removed later.
std::string path_at_start() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  return length < 0 ? "" : std::string(path, static_cast<std::size_t>(length));
}

const std::string* const kStartPath = new std::string(path_at_start());

bool fails(const char* function) {
  return world().failing.count(function) != 0;
}

}  // namespace
}  // namespace fake

using fake::fails;
using fake::world;

extern "C" {

// Failing: the buffer is too small although its size is the one that was told.
int _NSGetExecutablePath(char* buf, uint32_t* bufsize) {
  const std::string& path = world().executable_path ? *world().executable_path : *fake::kStartPath;
  const auto needed = static_cast<uint32_t>(path.size() + 1);
  world().calls.push_back("_NSGetExecutablePath " + std::to_string(*bufsize));
  if (*bufsize < needed || fails("_NSGetExecutablePath")) {
    *bufsize = needed;
    return -1;
  }
  std::memcpy(buf, path.c_str(), needed);
  return 0;
}

void CFRunLoopRun(void) {
  world().calls.push_back("CFRunLoopRun");
  while (!world().run_loop_ends) ::pause();
}

// Failing: a status, and nothing filled in.
OSStatus SessionGetInfo(SecuritySessionId session, SecuritySessionId* session_id,
                        SessionAttributeBits* attributes) {
  world().calls.push_back("SessionGetInfo " + std::to_string(session));
  if (fails("SessionGetInfo")) return -60500;
  *session_id = world().session_id;
  *attributes = world().session_attributes;
  return world().session_status;
}

// An unknown selector spoils the answer, as nothing forbids it.
OSErr Gestalt(OSType selector, SInt32* response) {
  const auto known = world().selectors.find(selector);
  *response = known == world().selectors.end() ? -1 : known->second;
  return known == world().selectors.end() ? -5551 : 0;
}

unsigned int pthread_mach_thread_np(pthread_t thread) {
  return pthread_equal(thread, pthread_self()) ? static_cast<unsigned int>(::gettid()) : 0;
}

// Failing: no answer. Like the kernel's, the list is cut where the buffer ends.
int proc_pidinfo(int pid, int flavor, uint64_t arg, void* buffer, int buffersize) {
  if (fails("proc_pidinfo") || pid != ::getpid() || flavor != PROC_PIDLISTFDS || arg != 0) return 0;
  auto* out = static_cast<proc_fdinfo*>(buffer);
  const int room = buffersize / static_cast<int>(sizeof *out);
  int count = 0;
  DIR* folder = ::opendir("/proc/self/fd");
  if (folder == nullptr) return 0;
  while (const dirent* entry = ::readdir(folder)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != ::dirfd(folder) && count < room) out[count++] = {fd, 1};
  }
  ::closedir(folder);
  return count * static_cast<int>(sizeof *out);
}
}
