/// The rest of the macOS side: run loop, executable path, security session, version, thread number.

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <Security/AuthSession.h>
#include <fcntl.h>
#include <mach-o/dyld.h>
#include <pthread.h>
#include <sys/param.h>

#include <cstring>

#include "platform/platform.h"

namespace platform {

namespace {

/// Owns one CoreFoundation object.
template <class Ref>
class cf_owner {
 public:
  explicit cf_owner(Ref object = nullptr) : object_(object) {}
  ~cf_owner() {
    if (object_ != nullptr) CFRelease(object_);
  }
  cf_owner(const cf_owner&) = delete;
  cf_owner& operator=(const cf_owner&) = delete;

  Ref get() const { return object_; }
  Ref* out() { return &object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  Ref object_;
};

constexpr char kVersionFile[] = "/System/Library/CoreServices/SystemVersion.plist";

/// The text of `string`: as the object keeps it, or copied, empty when the copy fails.
std::string text_of(CFStringRef string) {
  if (const char* kept = CFStringGetCStringPtr(string, kCFStringEncodingUTF8)) return kept;
  char copy[256];
  if (!CFStringGetCString(string, copy, sizeof copy, kCFStringEncodingUTF8)) return {};
  return copy;
}

nil_string version_in(CFPropertyListRef list) {
  if (CFGetTypeID(list) != CFDictionaryGetTypeID()) return std::nullopt;
  const cf_owner<CFStringRef> key(
      CFStringCreateWithCString(kCFAllocatorDefault, "ProductVersion", kCFStringEncodingUTF8));
  if (!key) return std::nullopt;
  const void* value = CFDictionaryGetValue(static_cast<CFDictionaryRef>(list), key.get());
  if (value == nullptr || CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
  return text_of(static_cast<CFStringRef>(value));
}

}  // namespace

void run_main_loop() {
  CFRunLoopRun();
}

bool is_still_named([[maybe_unused]] int descriptor, [[maybe_unused]] const char* name) noexcept {
#ifdef F_GETPATH
  char path[MAXPATHLEN];
  if (::fcntl(descriptor, F_GETPATH, path) != 0) return false;  // ENOENT: it has no name
  const char* const last = std::strrchr(path, '/');
  return last != nullptr && std::strcmp(last + 1, name) == 0;
#else
  return true;
#endif
}

nil_string executable_path() {
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);  // only to learn the size
  std::string path(size, '\0');
  if (size == 0 || _NSGetExecutablePath(path.data(), &size) != 0) return std::nullopt;
  path.resize(size - 1);  // without the terminating zero
  return path;
}

security_session calling_security_session() {
  security_session session{0, 0};
  SecuritySessionId id = 0;
  SessionAttributeBits attributes = 0;
  SessionGetInfo(callerSecuritySession, &id, &attributes);  // Deliberate: the status is ignored
  session.id = id;
  session.attributes = attributes;
  return session;
}

nil_string product_version() {
  const cf_owner<CFURLRef> url(CFURLCreateFromFileSystemRepresentation(
      kCFAllocatorDefault, reinterpret_cast<const UInt8*>(kVersionFile), sizeof kVersionFile - 1,
      false));
  if (!url) return std::nullopt;
  cf_owner<CFDataRef> data;
  SInt32 error = 0;
  if (!CFURLCreateDataAndPropertiesFromResource(kCFAllocatorDefault, url.get(), data.out(), nullptr,
                                                nullptr, &error) ||
      !data)
    return std::nullopt;
  cf_owner<CFStringRef> problem;
  const cf_owner<CFPropertyListRef> list(CFPropertyListCreateFromXMLData(
      kCFAllocatorDefault, data.get(), kCFPropertyListImmutable, problem.out()));
  if (!list) return std::nullopt;
  return version_in(list.get());
}

bool older_version_selector(std::uint32_t selector, int& value) {
  SInt32 answer = 0;
  if (Gestalt(selector, &answer) != 0) return false;
  value = answer;
  return true;
}

std::uint64_t thread_number() {
  return pthread_mach_thread_np(pthread_self());
}

}  // namespace platform
