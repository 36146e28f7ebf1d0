#include "osx/os_version.h"

#include <cstdint>
#include <string>
#include <vector>

#include "muro/sys/strings.h"
#include "platform/platform.h"

namespace muro {
namespace {

struct version {
  int major = 10;
  int minor = 4;
  int bugfix = 0;
};

// A selector is four characters read as a big-endian number.
constexpr std::uint32_t selector(const char (&name)[5]) {
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(name[i]);
  return value;
}

version version_from_text(const std::string& text) {
  std::vector<std::string> pieces;
  tokenize(&pieces, text, '.');
  pieces.resize(3);
  return {muro::atoi(pieces[0]), muro::atoi(pieces[1]), muro::atoi(pieces[2])};
}

version version_from_selectors() {
  version v;
  platform::older_version_selector(selector("sys1"), v.major);
  platform::older_version_selector(selector("sys2"), v.minor);
  platform::older_version_selector(selector("sys3"), v.bugfix);
  return v;
}

}  // namespace

int os_version_osx(int& major, int& minor) {
  const platform::nil_string text = platform::product_version();
  const bool known = text.has_value() && !text->empty();
  const version v = known ? version_from_text(*text) : version_from_selectors();
  major = v.major;
  minor = v.minor;
  return v.bugfix;
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
