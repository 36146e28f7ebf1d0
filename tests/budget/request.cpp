/// The start up to the first reply, and requests. Clients send before the endpoint serves, so that
/// every request is there as a whole when the server comes to it and the calls are always the same.
/// Those of a client are socket, connect, write, read twice (the reply and the end) and close.

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "front/startup.h"
#include "ipc/endpoint.h"
#include "ipc/socket.h"
#include "muro/sys/unique_fd.h"
#include "tests/budget/budget.h"

namespace {

void require(bool done, const char* what) {
  if (!done) std::perror(what), std::exit(1);
}

const std::string& endpoint_name() {
  static const std::string name = "korvel_budget_" + std::to_string(::getpid());
  return name;
}

class endpoint : public muro::ipc {
 public:
  endpoint() : muro::ipc(endpoint_name(), true, false, defer_serving) {}
  ~endpoint() override { stop_serving(); }
  void start() { serve(); }
  std::string handle_request(const std::string&) override { return {}; }
};

std::string frame_of(std::uint32_t length) {
  std::string frame(sizeof length + length, 'x');
  std::memcpy(frame.data(), &length, sizeof length);
  return frame;
}

muro::unique_fd send_to_endpoint(const std::string& frame) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/tmp/" + endpoint_name() + ".ipc";
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  muro::unique_fd client(::socket(AF_UNIX, SOCK_STREAM, 0));
  require(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "connect");
  require(::write(client.get(), frame.data(), frame.size()) == static_cast<ssize_t>(frame.size()),
          "write");
  return client;
}

void take_reply(int client) {
  char reply[5];
  require(::read(client, reply, sizeof reply) == 4, "reply");
  require(::read(client, reply, sizeof reply) == 0, "end");
}

/// An endpoint's life with so many requests of so many bytes.
void serve_requests(int requests, std::uint32_t length) {
  endpoint served;
  const std::string frame = frame_of(length);
  std::vector<muro::unique_fd> clients;
  for (int i = 0; i < requests; ++i) clients.push_back(send_to_endpoint(frame));
  served.start();
  for (const muro::unique_fd& client : clients) take_reply(client.get());
}

template <int Requests, std::uint32_t Length>
void requests() {
  muro::init_make_socket();
  serve_requests(Requests, Length);
}

/// No file of time zones is read, as machines have different ones.
void start() {
  ::setenv("TZ", "UTC0", 1);
  open_standard_descriptors();
  use_default_path();
  start_runtime();
  serve_requests(1, 28);
}

/// A process starts once, so each time it is another's start.
void start_calls() {
  const pid_t child = ::fork();
  if (child == 0) start(), ::_exit(0);
  int status = 0;
  require(::waitpid(child, &status, 0) == child && status == 0, "start");
}

/// The runtime starts once in a process: at the second call, the one that is counted.
void start_instructions() {
  static bool warm = false;
  if (warm) start();
  warm = true;
}

}  // namespace

int main(int argc, char** argv) {
  return budget::run(argc, argv,
                     {{"start_calls", start_calls},
                      {"start_instructions", start_instructions},
                      {"request_one", requests<1, 28>},
                      {"request_queued", requests<20, 28>},
                      {"request_large", requests<1, 100000>}});
}
