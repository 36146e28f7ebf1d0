#include "osx/os_version.h"

#include <vector>

#include "muro/sys/strings.h"
#include "platform/platform.h"

namespace muro {
namespace {

// A selector is four characters read as a big-endian number.
constexpr std::uint32_t selector(const char (&name)[5]) {
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(name[i]);
  return value;
}

os_release release_from_text(const std::string& text) {
  std::vector<std::string> pieces;
  tokenize(&pieces, text, '.');
  pieces.resize(3);
  return {muro::atoi(pieces[0]), muro::atoi(pieces[1]), muro::atoi(pieces[2])};
}

}  // namespace

os_release os_release_of(const std::optional<std::string>& text,
                         bool (*older_selector)(std::uint32_t selector, int& value)) {
  if (text.has_value() && !text->empty()) return release_from_text(*text);
  os_release release;
  older_selector(selector("sys1"), release.major);
  older_selector(selector("sys2"), release.minor);
  older_selector(selector("sys3"), release.bugfix);
  return release;
}

int os_version_osx(int& major, int& minor) {
  const os_release release =
      os_release_of(platform::product_version(), platform::older_version_selector);
  major = release.major;
  minor = release.minor;
  return release.bugfix;
}

}  // namespace muro

namespace osx {

bool is_os_version_or_later(int major, int minor) {
  int running_major = 0;
  int running_minor = 0;
  muro::os_version_osx(running_major, running_minor);
  return running_major > major || (running_major == major && running_minor >= minor);
}

}  // namespace osx
