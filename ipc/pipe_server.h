#pragma once

/// The thread behind an endpoint: one connection, one request, one reply at a time.

#include <string>

#include "muro/sys/thread.h"

namespace muro {
class ipc;
}

class pipe_server : public muro::thread {
 public:
  pipe_server(int listening_socket, muro::ipc* endpoint);
  ~pipe_server() override;

  static bool read_(int descriptor, std::string& out);
  static bool write_(int descriptor, const std::string& body);
  static bool read_(int descriptor, unsigned char* bytes, int length);
  static bool write_(int descriptor, const unsigned char* bytes, int length);

 protected:
  void run() override;

 private:
  int listening_;
  muro::ipc* endpoint_;
  int stop_pipe_[2];
};
