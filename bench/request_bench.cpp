/// One request over a local socket beside a bare loop of the calls that the protocol prescribes, and
/// beside a server on libevent. The client is the same for all: connect, send a frame, take the
/// reply's frame, close. A server runs on a thread of its own.

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/support.h"
#include "ipc/endpoint.h"
#include "ipc/socket.h"
#include "muro/core/init.h"
#include "muro/sys/unique_fd.h"
#ifdef KORVEL_BENCH_EVENT
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <event2/thread.h>
#endif

namespace {

constexpr int kQueued = 20;

std::string endpoint_name(const std::string& contender) {
  return "korvel_bench_" + std::to_string(::getpid()) + "_" + contender;
}

sockaddr_un address_of(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/tmp/" + name + ".ipc";
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

std::string frame_of(std::size_t length) {
  std::string frame(4 + length, 'x');
  const auto size = static_cast<std::uint32_t>(length);
  std::memcpy(frame.data(), &size, sizeof size);
  return frame;
}

// The client

muro::unique_fd connect_to(const sockaddr_un& address) {
  muro::unique_fd made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  while (::connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    ::sched_yield();  // the queue is full
  return made;
}

bool send_frame(int to, const std::string& frame) {
  for (std::size_t sent = 0; sent < frame.size();) {
    const ssize_t n = ::send(to, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

bool take_reply(int from) {
  char reply[4];
  return ::recv(from, reply, sizeof reply, MSG_WAITALL) == sizeof reply &&
         std::memcmp(reply, "\0\0\0\0", sizeof reply) == 0;
}

bool ask(const sockaddr_un& address, const std::string& frame) {
  const muro::unique_fd client = connect_to(address);
  return send_frame(client.get(), frame) && take_reply(client.get());
}

bool ask_queued(const sockaddr_un& address, const std::string& frame) {
  std::vector<muro::unique_fd> clients;
  for (int i = 0; i < kQueued; ++i) {
    clients.push_back(connect_to(address));
    if (!send_frame(clients.back().get(), frame)) return false;
  }
  for (const muro::unique_fd& client : clients)
    if (!take_reply(client.get())) return false;
  return true;
}

// The servers

struct server {
  virtual ~server() = default;
};

class ours : public server {
 public:
  explicit ours(const std::string& name) : endpoint_(name) {}

 private:
  struct endpoint : muro::ipc {
    explicit endpoint(const std::string& name) : muro::ipc(name, false, false, defer_serving) {
      serve();
    }
    ~endpoint() override { stop_serving(); }
    std::string handle_request(const std::string&) override { return {}; }
  };
  endpoint endpoint_;
};

muro::unique_fd listen_at(const std::string& name) {
  const sockaddr_un address = address_of(name);
  muro::unique_fd made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ::unlink(address.sun_path);
  if (::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(made.get(), kQueued) != 0)
    std::perror("listen"), std::exit(1);
  return made;
}

/// Waits for a client or the end, accepts, keeps the descriptor from children, makes it blocking,
/// reads length and body, answers, closes: one connection at a time.
class bare_loop : public server {
 public:
  explicit bare_loop(const std::string& name) : listening_(listen_at(name)) {
    if (::pipe(stop_) != 0) std::perror("pipe"), std::exit(1);
    thread_ = std::thread([this] { run(); });
  }
  ~bare_loop() override {
    ::close(stop_[1]);
    thread_.join();
    ::close(stop_[0]);
  }

 private:
  void run() {
    std::string body;
    for (;;) {
      pollfd entries[] = {{listening_.get(), POLLIN, 0}, {stop_[0], POLLIN, 0}};
      ::poll(entries, 2, -1);
      if (entries[1].revents != 0) return;
      const muro::unique_fd client(::accept(listening_.get(), nullptr, nullptr));
      ::fcntl(client.get(), F_SETFD, FD_CLOEXEC);
      int blocking = 0;
      ::ioctl(client.get(), FIONBIO, &blocking);
      std::uint32_t length = 0;
      if (!read_all(client.get(), &length, sizeof length)) continue;
      body.resize(length);
      if (!read_all(client.get(), body.data(), length)) continue;
      static_cast<void>(!::write(client.get(), "\0\0\0\0", 4));
    }
  }

  static bool read_all(int from, void* bytes, std::size_t length) {
    for (std::size_t got = 0; got < length;) {
      const ssize_t n = ::read(from, static_cast<char*>(bytes) + got, length - got);
      if (n <= 0) return false;
      got += static_cast<std::size_t>(n);
    }
    return true;
  }

  muro::unique_fd listening_;
  int stop_[2];
  std::thread thread_;
};

#ifdef KORVEL_BENCH_EVENT
class event_server : public server {
 public:
  explicit event_server(const std::string& name) {
    evthread_use_pthreads();
    base_ = event_base_new();
    const sockaddr_un address = address_of(name);
    ::unlink(address.sun_path);
    listener_ = evconnlistener_new_bind(
        base_, accepted, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, kQueued,
        reinterpret_cast<const sockaddr*>(&address), sizeof address);
    thread_ = std::thread([this] { event_base_loop(base_, EVLOOP_NO_EXIT_ON_EMPTY); });
  }
  ~event_server() override {
    event_base_loopbreak(base_);
    thread_.join();
    evconnlistener_free(listener_);
    event_base_free(base_);
  }

 private:
  static void accepted(evconnlistener*, evutil_socket_t client, sockaddr*, int, void* self) {
    bufferevent* const made = bufferevent_socket_new(static_cast<event_server*>(self)->base_,
                                                     client, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_setcb(made, readable, nullptr, ended, nullptr);
    bufferevent_enable(made, EV_READ | EV_WRITE);
  }
  static void readable(bufferevent* client, void*) {
    evbuffer* const input = bufferevent_get_input(client);
    std::uint32_t length = 0;
    if (evbuffer_copyout(input, &length, sizeof length) < 4) return;
    if (evbuffer_get_length(input) < 4 + length) return;
    evbuffer_drain(input, 4 + length);
    bufferevent_setcb(client, nullptr, written, ended, nullptr);
    bufferevent_write(client, "\0\0\0\0", 4);
  }
  static void written(bufferevent* client, void*) { bufferevent_free(client); }
  static void ended(bufferevent* client, short, void*) { bufferevent_free(client); }

  event_base* base_;
  evconnlistener* listener_;
  std::thread thread_;
};
#endif

using start_server = std::function<std::unique_ptr<server>(const std::string& name)>;
using question = bool (*)(const sockaddr_un&, const std::string&);

struct workload {
  const char* row;
  question how;
  int requests;      // that one question makes
  std::size_t body;  // bytes
  int tries;         // that one repetition makes
};

constexpr workload kWorkloads[] = {
    {"request/small", ask, 1, 28, 500},
    {"request/queued", ask_queued, kQueued, 28, 50},
    {"request/large", ask, 1, 0x100000, 100},
};

/// A repetition tells the fastest of its tries: whatever else the machine does can only make one
/// slower, and two threads that wake each other meet that in most of them.
void add(const workload& load, const char* contender, const start_server& start) {
  bench::add(load.row, contender,
             [=](benchmark::State& state) {
               const std::string name = endpoint_name("served");
               const auto serving = start(name);
               const sockaddr_un address = address_of(name);
               const std::string frame = frame_of(load.body);
               for (auto _ : state) {
                 double fastest_s = std::numeric_limits<double>::max();
                 for (int i = 0; i < load.tries; ++i) {
                   const bench::stopwatch watch;
                   if (!load.how(address, frame))
                     return state.SkipWithError("wrong: another reply");
                   fastest_s = std::min(fastest_s, watch.seconds());
                 }
                 state.SetIterationTime(fastest_s / load.requests);
               }
               ::unlink(address.sun_path);  // the peers leave it
             })
      ->UseManualTime()
      ->Iterations(1);
}

/// Client and server take turns anyway. On two processors most of a request would be how long the
/// other one takes to wake, which differs from run to run by more than the servers do.
void stay_on_one_processor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(::sched_getcpu(), &one);
  if (::sched_setaffinity(0, sizeof one, &one) != 0) std::perror("sched_setaffinity");
}

void add_rows(const char* contender, const start_server& start) {
  for (const workload& load : kWorkloads) add(load, contender, start);
}

}  // namespace

int main(int argc, char** argv) {
  [[maybe_unused]] static const muro::init* const runtime = new muro::init;
  muro::init_make_socket();
  stay_on_one_processor();
  add_rows("ours", [](const std::string& name) { return std::make_unique<ours>(name); });
  add_rows("limit", [](const std::string& name) { return std::make_unique<bare_loop>(name); });
#ifdef KORVEL_BENCH_EVENT
  add_rows("libevent",
           [](const std::string& name) { return std::make_unique<event_server>(name); });
#else
  for (const workload& load : kWorkloads) bench::add_missing(load.row, "libevent");
#endif
  return bench::run(argc, argv);
}
