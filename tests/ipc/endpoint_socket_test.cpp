#include "ipc/endpoint_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ipc/endpoint.h"
#include "ipc/socket.h"
#include "muro/sys/unique_fd.h"
#include "tests/ipc/recorder.h"
#include "tests/support/descriptors.h"
#include "tests/support/frame_client.h"
#include "tests/support/temp_dir.h"

namespace {

using test::endpoint_name;
using test::endpoint_path;

struct outcome {
  bool ok = false;
  std::string path;
  muro::unique_fd socket;
  int error = 0;
};

enum class side { server, client };
enum class reach { everybody, restricted, per_user };

outcome open_socket(const std::string& name, side which, reach who = reach::everybody) {
  muro::init_make_socket();
  outcome result;
  int descriptor = 77;
  errno = 0;
  result.ok = ipc_priv::init_ipc_socket(result.path, name, which == side::server, descriptor,
                                        who == reach::restricted, who == reach::per_user);
  result.error = errno;
  result.socket.reset(descriptor);
  return result;
}

mode_t mode_of(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

/// Makes every socket by `make` while it lives.
class sockets_made_by {
 public:
  explicit sockets_made_by(muro::make_socket_hook make) { muro::x_make_socket3 = make; }
  ~sockets_made_by() { muro::x_make_socket3 = nullptr; }
  sockets_made_by(const sockets_made_by&) = delete;
  sockets_made_by& operator=(const sockets_made_by&) = delete;
};

/// The name whose path has `length` bytes.
std::string name_for_path_of(std::size_t length) {
  const std::string start = endpoint_name();
  return start + std::string(length - endpoint_path(start).size(), 'x');
}

bool can_connect(const std::string& file) {
  try {
    test::frame_client client(file);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

TEST(init_ipc_socket, name_of_the_helper_gives_its_path) {
  EXPECT_EQ(open_socket("korvel_helper", side::client).path, "/tmp/korvel_helper.ipc");
}

TEST(init_ipc_socket, server_listens_with_the_open_mode) {
  const std::string name = endpoint_name();
  const outcome server = open_socket(name, side::server);
  EXPECT_TRUE(server.ok);
  EXPECT_EQ(server.path, endpoint_path(name));
  EXPECT_EQ(mode_of(server.path), mode_t{S_IFSOCK | 0666});
  EXPECT_TRUE(can_connect(server.path));
  ::unlink(server.path.c_str());
}

TEST(init_ipc_socket, restricted_server_has_the_restricted_mode) {
  const outcome server = open_socket(endpoint_name(), side::server, reach::restricted);
  EXPECT_EQ(mode_of(server.path), mode_t{S_IFSOCK | 0660});
  ::unlink(server.path.c_str());
}

TEST(init_ipc_socket, per_user_endpoint_lies_in_the_home_folder) {
  const test::temp_dir home;
  const std::string before = ::getenv("HOME") == nullptr ? "" : ::getenv("HOME");
  ::setenv("HOME", home.path().c_str(), 1);
  const outcome server = open_socket("mine", side::server, reach::per_user);
  ::setenv("HOME", before.c_str(), 1);
  EXPECT_TRUE(server.ok);
  EXPECT_EQ(server.path, home / "mine.ipc");
  EXPECT_EQ(mode_of(server.path), mode_t{S_IFSOCK | 0666});
}

TEST(init_ipc_socket, server_socket_is_blocking_and_closes_on_exec) {
  sockets_made_by non_blocking(
      [](int d, int t, int p, auto, auto) { return ::socket(d, t | SOCK_NONBLOCK, p); });
  const outcome server = open_socket(endpoint_name(), side::server);
  EXPECT_EQ(::fcntl(server.socket.get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(::fcntl(server.socket.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ::unlink(server.path.c_str());
}

TEST(init_ipc_socket, socket_is_a_local_stream) {
  static std::vector<int> asked;
  sockets_made_by recorder([](int d, int t, int p, auto make, auto) {
    asked = {d, t, p};
    return make(d, t, p);
  });
  open_socket("nobody-serves-this", side::client);
  EXPECT_EQ(asked, (std::vector<int>{AF_UNIX, SOCK_STREAM, 0}));
}

TEST(init_ipc_socket, stale_file_is_replaced) {
  const std::string name = endpoint_name();
  test::write_file(endpoint_path(name), "left by an earlier run");
  const outcome server = open_socket(name, side::server);
  EXPECT_TRUE(server.ok);
  EXPECT_TRUE(can_connect(server.path));
  ::unlink(server.path.c_str());
}

TEST(init_ipc_socket, queue_takes_twenty_clients_and_the_one_in_hand) {
  const outcome server = open_socket(endpoint_name(), side::server);
  const sockaddr_un address = test::socket_address(server.path);
  std::vector<muro::unique_fd> clients;
  for (;;) {
    clients.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    if (::connect(clients.back().get(), reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) != 0)
      break;
  }
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(clients.size() - 1, 21u);  // the kernel counts a backlog of 20 so
  ::unlink(server.path.c_str());
}

TEST(init_ipc_socket, client_connects_to_a_server) {
  const std::string name = endpoint_name();
  const outcome server = open_socket(name, side::server);
  const outcome client = open_socket(name, side::client);
  EXPECT_TRUE(client.ok);
  EXPECT_EQ(client.path, server.path);
  const muro::unique_fd accepted(::accept(server.socket.get(), nullptr, nullptr));
  EXPECT_EQ(::write(client.socket.get(), "x", 1), 1);
  char byte = 0;
  EXPECT_EQ(::read(accepted.get(), &byte, 1), 1);
  ::unlink(server.path.c_str());
}

TEST(init_ipc_socket, client_without_a_server_fails_and_leaves_the_socket_to_the_caller) {
  const outcome client = open_socket(endpoint_name(), side::client);
  EXPECT_FALSE(client.ok);
  EXPECT_EQ(client.error, ENOENT);
  EXPECT_TRUE(test::is_open(client.socket.get()));
}

TEST(init_ipc_socket, client_changes_no_file) {
  const std::string name = endpoint_name();
  test::write_file(endpoint_path(name), "not a socket");
  EXPECT_FALSE(open_socket(name, side::client).ok);
  EXPECT_EQ(test::read_file(endpoint_path(name)), "not a socket");
  ::unlink(endpoint_path(name).c_str());
}

TEST(init_ipc_socket, zero_byte_in_a_name_is_a_failure_that_touches_no_file) {
  const std::string cut = endpoint_path(endpoint_name());
  const std::string name = cut.substr(5) + std::string("\0x", 2);  // cut there it is that file
  test::write_file(cut, "");
  for (const bool server : {true, false}) {
    std::string path;
    int descriptor = 0;
    EXPECT_FALSE(ipc_priv::init_ipc_socket(path, name, server, descriptor, false, false));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(descriptor, -1);
  }
  EXPECT_EQ(::unlink(cut.c_str()), 0);
}

TEST(init_ipc_socket, no_socket_is_a_failure_with_descriptor_minus_one) {
  sockets_made_by nobody([](int, int, int, auto, auto) {
    errno = ENOBUFS;
    return -1;
  });
  const std::string name = endpoint_name();
  const outcome server = open_socket(name, side::server);
  EXPECT_FALSE(server.ok);
  EXPECT_EQ(server.socket.get(), -1);
  EXPECT_EQ(server.error, ENOBUFS);
  EXPECT_EQ(server.path, endpoint_path(name));
}

TEST(init_ipc_socket, descriptor_that_cannot_be_made_blocking_is_a_failure) {
  sockets_made_by stranger([](int, int, int, auto, auto) { return 98765; });
  const std::string name = endpoint_name();
  test::write_file(endpoint_path(name), "untouched");
  const outcome server = open_socket(name, side::server);
  EXPECT_FALSE(server.ok);
  EXPECT_EQ(server.socket.get(), 98765);
  EXPECT_EQ(server.error, EBADF);
  EXPECT_EQ(test::read_file(endpoint_path(name)), "untouched");
  ::unlink(endpoint_path(name).c_str());
}

TEST(init_ipc_socket, bind_failure_leaves_the_socket_to_the_caller) {
  const std::string name = endpoint_name();
  ASSERT_EQ(::mkdir(endpoint_path(name).c_str(), 0700), 0);
  const outcome server = open_socket(name, side::server);
  EXPECT_FALSE(server.ok);
  EXPECT_EQ(server.error, EADDRINUSE);
  EXPECT_TRUE(test::is_open(server.socket.get()));
  EXPECT_EQ(::rmdir(endpoint_path(name).c_str()), 0);
}

TEST(init_ipc_socket, listen_failure_removes_the_file) {
  sockets_made_by datagram(
      [](int d, int, int p, auto, auto) { return ::socket(d, SOCK_DGRAM, p); });
  const outcome server = open_socket(endpoint_name(), side::server);
  EXPECT_FALSE(server.ok);
  EXPECT_EQ(server.error, EOPNOTSUPP);
  EXPECT_TRUE(test::is_open(server.socket.get()));
  EXPECT_EQ(mode_of(server.path), 0u);
}

TEST(init_ipc_socket, chmod_failure_removes_the_file) {
  ipc_priv::chmod_call = [](const char*, mode_t) {
    errno = EROFS;
    return -1;
  };
  const outcome server = open_socket(endpoint_name(), side::server);
  ipc_priv::chmod_call = ::chmod;
  EXPECT_FALSE(server.ok);
  EXPECT_EQ(server.error, EROFS);
  EXPECT_TRUE(test::is_open(server.socket.get()));
  EXPECT_EQ(mode_of(server.path), 0u);
}

TEST(init_ipc_socket, path_of_103_and_104_bytes_is_used_whole) {
  for (const std::size_t length : {103u, 104u}) {
    const outcome server = open_socket(name_for_path_of(length), side::server);
    EXPECT_TRUE(server.ok);
    EXPECT_EQ(server.path.size(), length);
    EXPECT_EQ(mode_of(server.path), mode_t{S_IFSOCK | 0666});
    ::unlink(server.path.c_str());
  }
}

TEST(init_ipc_socket, longer_path_is_bound_cut_to_104_bytes) {
  const std::string name = name_for_path_of(130);
  const outcome server = open_socket(name, side::server, reach::restricted);
  const std::string file = endpoint_path(name).substr(0, 104);
  EXPECT_TRUE(server.ok);
  EXPECT_EQ(server.path, endpoint_path(name));
  EXPECT_EQ(ipc_priv::socket_file(server.path), file);
  EXPECT_EQ(mode_of(file), mode_t{S_IFSOCK | 0660});
  EXPECT_EQ(mode_of(server.path), 0u);
  ::unlink(file.c_str());
}

TEST(init_ipc_socket, client_of_a_cut_path_finds_its_server) {
  const std::string name = name_for_path_of(130);
  const outcome server = open_socket(name, side::server);
  const outcome client = open_socket(name, side::client);
  EXPECT_TRUE(client.ok);
  EXPECT_EQ(client.path, endpoint_path(name));
  ::unlink(ipc_priv::socket_file(server.path).c_str());
}

TEST(init_ipc_socket, stale_file_under_a_cut_path_is_replaced) {
  const std::string name = name_for_path_of(130);
  test::write_file(endpoint_path(name).substr(0, 104), "left by an earlier run");
  const outcome server = open_socket(name, side::server);
  EXPECT_TRUE(server.ok);
  ::unlink(ipc_priv::socket_file(server.path).c_str());
}

TEST(init_ipc_socket, endpoint_with_a_cut_path_deletes_its_file) {
  struct plain : muro::ipc {
    explicit plain(const std::string& name) : ipc(name, true, false) {}
    std::string handle_request(const std::string& request) override { return request; }
  };
  const std::string name = name_for_path_of(130);
  const std::string file = endpoint_path(name).substr(0, 104);
  {
    plain endpoint(name);
    EXPECT_EQ(test::frame_client(file).ask("cut"), "cut");
  }
  EXPECT_EQ(mode_of(file), 0u);
}

}  // namespace
