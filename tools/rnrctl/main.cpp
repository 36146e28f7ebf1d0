#include <exception>
#include <iostream>

#include "ipc/socket.h"
#include "muro/core/init.h"
#include "tools/rnrctl/commands.h"

int main(int argc, char** argv) {
  try {
    // Lives to the end of the process; turns SIGPIPE off.
    [[maybe_unused]] static const muro::init* const runtime = new muro::init;
    muro::init_make_socket();
  } catch (const std::exception& e) {
    std::cerr << "rnrctl: cannot start: " << e.what() << '\n';
    return static_cast<int>(rnrctl::exit_status::failed);
  }
  return static_cast<int>(rnrctl::rnrctl_main({argv + 1, argv + argc}, std::cout, std::cerr));
}
