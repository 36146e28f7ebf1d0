// Requests of every kind, a good third of them hostile, through the real endpoint and the real
// command handler in one process, in a Mac root: memory, descriptors, threads and children have to
// stay what they were after the warm-up. Pauses take no time here, and of the programs that the
// helper starts only some are really started; for the others a stand-in does their work.
//
// KORVEL_SOAK_REQUESTS is how many, 10,000 where it is not set.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <random>
#include <string>

#include "front/command_handler.h"
#include "front/startup.h"
#include "ipc/packet.h"
#include "muro/core/errlog.h"
#include "muro/sys/child_start.h"
#include "muro/sys/time.h"
#include "soak/process_state.h"
#include "tests/support/frame_client.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

constexpr char kEndpoint[] = "soak";
constexpr char kSocket[] = "/tmp/soak.ipc";
constexpr char kClient[] = "/Applications/Korvel.app/Contents/MacOS/korvel";
constexpr char kOwnId[] = "session-3";
constexpr int kSessions = 16;

long asked_requests() {
  const char* const asked = std::getenv("KORVEL_SOAK_REQUESTS");
  return asked != nullptr ? std::atol(asked) : 10000;
}

// Programs: one in a hundred is started, the others are pretended. Only the server's thread is here.

constexpr pid_t kPretended = 0x3fffffff;
long started = 0;
long pretended = 0;

void remove_files_in(const char* folder) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) fs::remove(entry, ignored);
}

/// What /bin/rm would do; launchctl has nothing to do in this root.
pid_t start_or_pretend() {
  if ((started + pretended) % 100 == 0) {
    const pid_t pid = ::fork();
    if (pid > 0) ++started;
    return pid;
  }
  ++pretended;
  remove_files_in("/Library/LaunchAgents");
  remove_files_in("/Library/LaunchDaemons");
  return kPretended;
}

pid_t wait_or_pretend(pid_t pid, int* status, int flags) {
  if (pid != kPretended) return ::waitpid(pid, status, flags);
  *status = 0;
  return pid;
}

std::string packet(const std::string& command, const std::string& argument) {
  std::string body;
  muro_packet<std::string>::push(body, argument);
  muro_packet<std::string>::push(body, command);
  return body;
}

/// The crowd: one request after the other, each of a kind that chance picks.
class crowd {
 public:
  void send_one() {
    const unsigned kind = chance(12);
    ++(kind < 7 ? friendly : hostile);
    switch (kind) {
      case 0:
      case 1:
        return register_session();
      case 2:
      case 3:
        return ask(packet("rnr_resign", file_of(any_session())));
      case 4:
        return ask(packet("rnr_register", "/private/tmp/missing.dat"));
      case 5:
        return ask(packet("no such command", noise(40)));
      case 6:
        return ask(packet("rnr_resign", "/tmp/unknown-" + std::to_string(chance(1000)) + ".dat"));
      case 7:
        return ask(noise(200));  // a whole frame of garbage is still answered
      case 8:
        return ask(hostile_argument());
      default:
        return send_and_leave(hostile_bytes());
    }
  }

  long friendly = 0;
  long hostile = 0;
  long replies = 0;
  long missing_replies = 0;

 private:
  unsigned chance(unsigned below) { return static_cast<unsigned>(random_() % below); }
  std::string any_session() { return "session-" + std::to_string(chance(kSessions)); }
  static std::string file_of(const std::string& id) { return "/private/tmp/" + id + ".dat"; }

  std::string noise(unsigned most) {
    std::string bytes(chance(most + 1), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random_());
    return bytes;
  }

  void register_session() {
    const std::string id = any_session();
    test::write_file(file_of(id), "state of " + id);
    if (chance(4) == 0) fs::remove_all("/Library/VeskRuntime/sessions/" + id);
    ask(packet("rnr_register", file_of(id)));
  }

  std::string hostile_argument() {
    static const std::string kArguments[] = {
        "",
        "/..dat",
        "/...dat",
        "/tmp/.dat",
        "../../etc/passwd.dat",
        std::string("/tmp/a\0b.dat", 12),
        std::string("\0", 1),
        "/dev/console.dat",
        "/tmp/" + std::string(300, 'n') + ".dat",
        std::string(9000, '/') + "x.dat",
        "/tmp/\xff\xfe\x80<>&\"'%1%%2%.dat",
        "/tmp/\n\r\t\x01.dat",
    };
    const std::string& argument = kArguments[chance(std::size(kArguments))];
    return packet(chance(2) == 0 ? "rnr_register" : "rnr_resign", argument);
  }

  std::string hostile_bytes() {
    const std::string whole = test::frame(packet("rnr_resign", file_of(any_session())));
    switch (chance(6)) {
      case 0:
        return noise(64);
      case 1:
        return whole.substr(0, chance(static_cast<unsigned>(whole.size())));
      case 2:
        return std::string("\x01\0\x10\0", 4) + noise(64);
      case 3:
        return "\xff\xff\xff\xff";
      case 4:
        return whole + noise(200);  // and does not take its reply
      default:
        return "";  // silent
    }
  }

  void ask(const std::string& body) {
    ++replies;
    if (test::frame_client(kSocket).ask(body) != "") ++missing_replies;
  }

  /// Leaves with what the server sent still unread, in half of the cases only half.
  void send_and_leave(const std::string& bytes) {
    test::frame_client client(kSocket);
    client.send_bytes(bytes);
    if (chance(2) == 0) client.stop_sending();
  }

  std::mt19937 random_{20091};
};

/// The helper's runtime and endpoint, in this process.
class soak_requests : public testing::Test {
 protected:
  soak_requests() {
    fs::create_directories(fs::path(kClient).parent_path());
    test::write_file(kClient, "client");
    fs::create_directories("/Library/LaunchAgents");
    fs::create_directories("/Library/LaunchDaemons");
    start_runtime();
    muro::errlog::set_log_file("/private/var/log/soak.out");
    muro::errlog::set_log_to_stderr(false);
    muro::x_pause_us = [](unsigned long long) { ::sched_yield(); };
    process_priv::calls.fork = start_or_pretend;
    process_priv::calls.waitpid = wait_or_pretend;
  }

  static soak::process_state settled() {
    muro::errlog::wait_for_flush();
    return soak::state_now();
  }
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kGrowth_kb = 1L << 40;  // their own bookkeeping grows
#else
constexpr long kGrowth_kb = 1024;
#endif

TEST_F(soak_requests, leave_memory_descriptors_threads_and_children_as_they_were) {
  const long count = asked_requests();
  crowd clients;
  auto handler = std::make_optional<ipc_communicator>(kEndpoint, kOwnId);
  for (long i = 0; i < count / 5; ++i) clients.send_one();
  const soak::process_state warm = settled();
  std::cout << "after " << count / 5 << " requests: " << warm << std::endl;
  for (long i = count / 5; i < count; ++i) {
    clients.send_one();
    if (i % (count / 5) == 0) std::cout << "after " << i << " requests: " << settled() << std::endl;
  }
  // All before it are through when this one is answered.
  EXPECT_EQ(test::frame_client(kSocket).ask(""), "");
  const soak::process_state end = settled();
  std::cout << "after " << count << " requests: " << end << "\n"
            << clients.friendly << " friendly, " << clients.hostile << " hostile, "
            << clients.replies << " to be answered, " << started << " programs started, "
            << pretended << " pretended\n";

  EXPECT_EQ(clients.missing_replies, 0);
  EXPECT_GE(clients.hostile * 3, count);
  EXPECT_LE(end.resident_kb, warm.resident_kb + kGrowth_kb);
  EXPECT_EQ(end.threads, warm.threads);
  EXPECT_EQ(end.descriptors, warm.descriptors);
  EXPECT_EQ(end.children, 0);
  handler.reset();
  EXPECT_LT(settled().descriptors, warm.descriptors);
}

}  // namespace
