#include "osx/launchd_exec.h"

#include "muro/core/exception.h"

namespace osx {

void launchd_exec(unsigned long long, std::vector<std::string>) {
  throw muro::exception("launchd_exec: not built yet before macOS 10.10");
}

}  // namespace osx
