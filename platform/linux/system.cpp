#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "platform/linux/property_list_xml.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"

namespace platform {
namespace {

constexpr const char* kVersionFile = "/System/Library/CoreServices/SystemVersion.plist";

// A version file holds a few hundred bytes; what is larger than this is none.
constexpr std::size_t kMaximumVersionFile = 64 * 1024;

nil_string bounded_content(const char* path) {
  const descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  std::string content(kMaximumVersionFile + 1, '\0');
  std::size_t length = 0;
  for (;;) {
    const ssize_t got = ::read(file.get(), &content[length], content.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  if (length > kMaximumVersionFile) return std::nullopt;
  content.resize(length);
  return content;
}

// A whole decimal number; 0 for all else, a sign, a letter or too large a value included.
std::uint32_t session_number(const char* text) {
  std::uint64_t value = 0;
  if (text == nullptr) return 0;
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return 0;
    value = value * 10 + static_cast<std::uint64_t>(*text - '0');
    if (value > std::numeric_limits<std::uint32_t>::max()) return 0;
  }
  return static_cast<std::uint32_t>(value);
}

bool is_graphic(const char* session_type) {
  return session_type != nullptr &&
         (std::strcmp(session_type, "x11") == 0 || std::strcmp(session_type, "wayland") == 0);
}

// The kernel marks the link of an executable whose file has been removed.
constexpr const char* kRemovedMark = " (deleted)";

void drop_removed_mark(std::string& path) {
  const std::size_t length = std::strlen(kRemovedMark);
  if (path.size() <= length) return;
  if (path.compare(path.size() - length, length, kRemovedMark) != 0) return;
  if (::access(path.c_str(), F_OK) != 0) path.resize(path.size() - length);
}

}  // namespace

autorelease_pool::autorelease_pool() : pool_(nullptr) {}
autorelease_pool::~autorelease_pool() = default;

void run_main_loop() {
  // Unbounded on purpose. `pause` returns after a signal's handler has run: wait on.
  for (;;) ::pause();
}

bool is_still_named(int descriptor, const char*) noexcept {
  char link[64];
  char target[PATH_MAX + sizeof " (deleted)"];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  const ssize_t length = ::readlink(link, target, sizeof target);
  if (length < 0 || length == static_cast<ssize_t>(sizeof target)) return true;
  const std::string_view shown(target, static_cast<std::size_t>(length));
  return shown.size() < std::strlen(kRemovedMark) ||
         shown.substr(shown.size() - std::strlen(kRemovedMark)) != kRemovedMark;
}

nil_string executable_path() {
  std::string path(256, '\0');
  for (;;) {
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0) return std::nullopt;
    const bool complete = static_cast<std::size_t>(length) < path.size();
    path.resize(complete ? static_cast<std::size_t>(length) : path.size() * 2);
    if (complete) break;
  }
  drop_removed_mark(path);
  return path;
}

security_session calling_security_session() {
  return {session_number(std::getenv("XDG_SESSION_ID")),
          is_graphic(std::getenv("XDG_SESSION_TYPE")) ? kSessionHasGraphicAccess : 0};
}

nil_string product_version() {
  const nil_string content = bounded_content(kVersionFile);
  if (!content) return std::nullopt;
  const auto root = read_property_list_xml(*content);
  const property_list* version = root ? root->find("ProductVersion") : nullptr;
  if (version == nullptr || version->type != property_list::kind::string) return std::nullopt;
  return version->text;
}

bool older_version_selector(std::uint32_t, int&) {
  return false;
}

}  // namespace platform
