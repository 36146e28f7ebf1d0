/// Holds the worked examples of docs/formats.md against the code that makes and reads them.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "ipc/packet.h"
#include "ipc/pipe_server.h"
#include "muro/core/errlog.h"
#include "muro/core/hooks.h"
#include "muro/core/init.h"
#include "netbuf/netbuf.h"
#include "osx/launch_data.h"
#include "osx/launchd_exec.h"
#include "tests/support/temp_dir.h"

namespace {

/// The bytes of the page's block "```bytes NAME".
std::string example(const std::string& name) {
  std::istringstream page(test::read_file(KORVEL_DOCS_DIR "/formats.md"));
  std::string bytes;
  std::string line;
  bool inside = false;
  while (std::getline(page, line)) {
    if (line == "```bytes " + name) {
      inside = true;
    } else if (inside && line == "```") {
      return bytes;
    } else if (inside) {
      std::istringstream digits(line.substr(0, line.find('|')));
      for (std::string byte; digits >> byte;)
        bytes.push_back(static_cast<char>(std::stoi(byte, nullptr, 16)));
    }
  }
  throw std::runtime_error("no example " + name);
}

void start_runtime_once() {
  [[maybe_unused]] static const auto* started = new muro::init();
}

/// A pipe whose write end is closed after the bytes are in, so that a reader sees them and an end.
class filled_pipe {
 public:
  explicit filled_pipe(const std::string& bytes) {
    if (::pipe(ends_) != 0) throw std::runtime_error("pipe");
    EXPECT_EQ(::write(ends_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(ends_[1]);
  }
  ~filled_pipe() { ::close(ends_[0]); }
  int read_end() const { return ends_[0]; }

 private:
  int ends_[2];
};

std::string frame_of(const std::string& body) {
  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("pipe");
  EXPECT_TRUE(pipe_server::write_(ends[1], body));
  ::close(ends[1]);
  std::string bytes(65536, '\0');
  bytes.resize(static_cast<std::size_t>(::read(ends[0], bytes.data(), bytes.size())));
  ::close(ends[0]);
  return bytes;
}

/// A launchd that takes one message and gives one answer.
class one_answer_launchd {
 public:
  one_answer_launchd(const std::string& path, std::size_t expected, const std::string& answer)
      : listener_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 1) != 0)
      throw std::runtime_error("listen");
    thread_ = std::thread([this, expected, answer] { serve(expected, answer); });
  }
  ~one_answer_launchd() {
    if (thread_.joinable()) thread_.join();
    ::close(listener_);
  }
  std::string received() {
    thread_.join();
    return received_;
  }

 private:
  void serve(std::size_t expected, const std::string& answer) {
    const int connection = ::accept(listener_, nullptr, nullptr);
    char buffer[4096];
    while (received_.size() < expected) {
      const ssize_t got = ::read(connection, buffer, sizeof buffer);
      if (got <= 0) break;
      received_.append(buffer, static_cast<std::size_t>(got));
    }
    EXPECT_EQ(::write(connection, answer.data(), answer.size()),
              static_cast<ssize_t>(answer.size()));
    ::close(connection);
  }

  int listener_;
  std::thread thread_;
  std::string received_;
};

netbuf remove_request() {
  return launch_data::add_dict({{"RemoveJob", launch_data::add_string("norvane.jobsubmit")}});
}

long long fixed_time_ms = 0;
long long fixed_time() {
  return fixed_time_ms;
}

}  // namespace

TEST(formats_page, the_empty_reply_is_an_empty_frame) {
  EXPECT_EQ(frame_of(""), example("reply"));
}

TEST(formats_page, the_number_pops_as_told) {
  std::string packet = example("number");
  unsigned long value = 0;
  muro_packet<unsigned long>::pop(packet, value);
  EXPECT_EQ(value, 0x1234u);
  EXPECT_EQ(packet, "");
}

TEST(formats_page, the_string_pops_and_pushes_as_told) {
  std::string packet = example("string");
  std::string value;
  muro_packet<std::string>::pop(packet, value);
  EXPECT_EQ(value, "ab");
  muro_packet<std::string>::push(packet, "ab");
  EXPECT_EQ(packet, example("string"));
}

TEST(formats_page, the_request_that_registers_is_the_frame_of_its_two_fields) {
  std::string packet;
  muro_packet<std::string>::push(packet, "/tmp/abc.dat");
  muro_packet<std::string>::push(packet, "rnr_register");
  EXPECT_EQ(frame_of(packet), example("register"));
}

TEST(formats_page, the_request_that_registers_reads_back) {
  filled_pipe connection(example("register"));
  std::string packet;
  ASSERT_TRUE(pipe_server::read_(connection.read_end(), packet));
  std::string command;
  muro_packet<std::string>::pop(packet, command);
  EXPECT_EQ(command, "rnr_register");
}

TEST(formats_page, the_launchd_message_goes_over_the_socket_as_told) {
  start_runtime_once();
  test::temp_dir folder;
  one_answer_launchd launchd(folder / "sock", example("remove").size(), example("error-reply"));
  netbuf reply = send_to_sock(::geteuid(), folder / "sock", remove_request());
  EXPECT_EQ(launchd.received(), example("remove"));
  EXPECT_EQ(reply.to_string(), example("error-reply").substr(16));
}

TEST(formats_page, the_log_line_and_its_marker_are_written_as_told) {
  start_runtime_once();
  test::temp_dir folder;
  muro::x_absolute_time = fixed_time;
  muro::errlog::set_log_to_stderr(false);
  muro::errlog::set_log_file(folder / "log");
  muro::fmt_dbg log("commandReceived");
  fixed_time_ms = 1767323045000;
  log.fmt_verbose("Failed to uninstall agent for %1%", "/tmp/a\nb.dat");
  muro::errlog::wait_for_flush();
  EXPECT_EQ(test::read_file(folder / "log"), example("log-line"));
  fixed_time_ms += 4000;
  for (int i = 0; i < 9; ++i) log.fmt_verbose("Failed to uninstall agent for %1%", "/tmp/a\nb.dat");
  muro::errlog::wait_for_flush();
  EXPECT_EQ(test::read_file(folder / "log"), example("log-line") + example("log-marker"));
  muro::x_absolute_time = nullptr;
}
