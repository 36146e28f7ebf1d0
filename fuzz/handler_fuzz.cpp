// Sequences of requests against the running command handler, on a faked system. The input's first
// line says what the Mac is like, every other line is a step:
//
//     ca        the client is installed, there is a folder for agents (each optional)
//     mPATH     a user makes a file, in /tmp or in a session folder
//     jID       the daemon's job file of a session is put in place
//     s         from now on the other helper is asked: the shared one, or that of the session "abc"
//     fKN       the next request's operation after N good ones fails in the way K (0 to 3)
//     rPATH     rnr_register            uPATH   rnr_resign
//     oNAME|ARG another command         pBYTES  a packet
//     R U O P   the same through the socket; the lower-case ones call the handler directly, which
//               is some ten times as fast
//     wBYTES    what a client sends through the socket before it closes its sending side
//     gBYTES    the same, and the client goes away without waiting for a reply
//
// For every sequence:
//   - a whole frame is answered by one empty frame; for all else the connection is closed without
//     a byte; the handler serves on, and no exception escapes;
//   - a request changes nothing but the places of the session that it names (see fake_system.h),
//     and one that names none changes nothing;
//   - a restore file stands at exactly one place at all times, its content unchanged, unless its
//     session's helper has removed that session;
//   - a session whose agent could not be removed keeps its daemon;
//   - where nothing failed, the system and the log are those that a model of the commands gives.

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <vector>

#include "front/command_handler.h"
#include "front/installation.h"
#include "front/session_folder.h"
#include "fuzz/fake_system.h"
#include "fuzz/models.h"
#include "fuzz/target.h"
#include "ipc/packet.h"
#include "ipc/socket.h"
#include "muro/core/errlog.h"
#include "muro/core/hooks.h"
#include "muro/core/init.h"
#include "osx/job_files.h"
#include "tests/support/frame_client.h"

namespace {

using fake::mac;

constexpr const char* kClient = "/Applications/Korvel.app/Contents/MacOS/korvel";
constexpr const char* kAgents = "/Library/LaunchAgents";
constexpr const char* kDaemons = "/Library/LaunchDaemons";
constexpr const char* kOwnSession = "abc";
constexpr std::size_t kMostSteps = 12;

/// What "commandReceived" logged. Written by the endpoint's thread while a request is in hand.
std::vector<std::string>& logged = *new std::vector<std::string>;

int keep_line(const char* line, std::size_t length) {
  constexpr std::string_view kScope = "commandReceived: ";
  const std::string_view text(line, length);
  if (text.substr(0, kScope.size()) == kScope) logged.emplace_back(text.substr(kScope.size()));
  return 0;  // never queued: the log's thread and files have targets of their own
}

std::string endpoint_name(const char* suffix) {
  static_assert(std::string_view(fake::kSocketPrefix) == "/tmp/korvel_fuzz_");
  return "korvel_fuzz_" + std::to_string(::getpid()) + suffix;
}

/// The two helpers, served for as long as the process runs.
struct helpers {
  ipc_communicator shared{endpoint_name(""), ""};
  ipc_communicator own{endpoint_name("_abc"), kOwnSession};
};
helpers* running = nullptr;

void stop() {
  delete running;
  running = nullptr;
}

void start() {
  if (running != nullptr) return;
  muro::errlog::set_log_filter(keep_line);
  muro::x_pause_us = [](unsigned long long) {};
  fake::start();
  [[maybe_unused]] static const muro::init* const runtime = new muro::init;
  muro::errlog::set_log_filter(keep_line);
  muro::init_make_socket();
  running = new helpers;
  std::atexit(stop);
}

struct command {
  std::string name;
  std::string argument;
};

/// The command in a packet; false for a malformed one.
bool take_command(std::string_view packet, command& into) {
  std::string_view name;
  std::string_view argument;
  if (fuzz::take_text(packet, name) || fuzz::take_text(packet, argument)) return false;
  into = {std::string(name), std::string(argument)};
  return true;
}

/// The session that a restore file's path names; nil without one.
nil_string session_of(const std::string& path) {
  const nil_string id = fuzz::id_of(path);
  return fuzz::names_session(id) ? id : std::nullopt;
}

/// What is to come of one request, by the rules of the commands.
class model {
 public:
  model(fake::system& system, std::string own) : mac_(system), own_(std::move(own)) {}

  std::vector<std::string> log;

  void execute(const std::string& packet) {
    command now;
    if (!take_command(packet, now)) {
      log.emplace_back("exception");
    } else if (now.name == "rnr_register") {
      register_session(now.argument);
    } else if (now.name == "rnr_resign") {
      resign(now.argument);
    }
  }

 private:
  static std::string agent_file(const std::string& id) {
    return std::string(kAgents) + "/com.norvane.korvel.restart." + id + ".plist";
  }
  static std::string daemon_file(const std::string& id) {
    return std::string(kDaemons) + "/com.norvane.korvel.helper." + id + ".plist";
  }

  void register_session(const std::string& path) {
    if (!mac_.exists(kClient)) return log.emplace_back("Korvel executable not found"), void();
    const nil_string id = session_of(path);
    if (!mac_.exists(path) || !id || !move(path, *id))
      return log.emplace_back("Failed to move restore file"), void();
    if (!mac_.exists(kAgents)) return log.emplace_back("Failed to install agent"), void();
    mac_.files[agent_file(*id)] = std::string(kClient) + "\n--connect-restore\n" + kSessionsRoot +
                                  *id + "/" + *id +
                                  ".dat\n--on-connect\ndesktop?restart=continue\n"
                                  "--auto-close\n--wait-for-console\n";
  }

  bool move(const std::string& path, const std::string& id) {
    const std::string folder = kSessionsRoot + id;
    if (mac_.files.count(folder) != 0) return false;
    mac_.make_folders(folder);
    const auto file = mac_.files.find(path);
    if (file == mac_.files.end()) return false;
    const std::string content = file->second;
    if (!mac_.make_file(folder + "/" + id + ".dat", content)) return false;
    mac_.files.erase(path);
    return true;
  }

  void resign(const std::string& path) {
    const nil_string id = session_of(path);
    if (!id) return log.emplace_back("Failed to uninstall agent for " + path), void();
    mac_.files.erase(agent_file(*id));
    if (*id == own_ && mac_.files.erase(daemon_file(*id)) != 0)
      mac_.remove_tree(kSessionsRoot + *id);
  }

  fake::system& mac_;
  std::string own_;
};

/// What the packet may do at most, whatever fails.
fake::permission permission_for(const std::string& packet, const std::string& own) {
  fake::permission granted;
  command now;
  if (!take_command(packet, now)) return granted;
  const nil_string id = session_of(now.argument);
  if (!id) return granted;
  const bool registers = now.name == "rnr_register";
  if (!registers && now.name != "rnr_resign") return granted;
  granted.agent_label = std::string(kVeskRNRAgentName) + "." + *id;
  if (registers) {
    granted.may_install = true;
    granted.move_from = now.argument;
    granted.new_folder = kSessionsRoot + *id;
  } else if (*id == own) {
    granted.daemon_label = std::string(kVeskRNRServiceName) + "." + *id;
    granted.deleted_folder = kSessionsRoot + *id;
  }
  return granted;
}

enum class way { direct, socket, socket_without_waiting };

class sequence {
 public:
  explicit sequence(std::string_view world) {
    mac = {};
    for (const char* folder : {"/tmp", kDaemons, "/Applications/Korvel.app/Contents/MacOS",
                               "/Library/VeskRuntime/sessions"})
      mac.make_folders(folder);
    if (world.find('c') != std::string_view::npos) mac.make_file(kClient, "client");
    if (world.find('a') != std::string_view::npos) mac.make_folders(kAgents);
  }

  void step(char kind, const std::string& text) {
    switch (kind) {
      case 'm':
        return make_restore_file(text);
      case 'j':
        if (text.find('/') == std::string::npos)
          mac.make_file(std::string(kDaemons) + "/com.norvane.korvel.helper." + text + ".plist",
                        "job");
        return;
      case 's':
        own_ = own_.empty() ? kOwnSession : "";
        return;
      case 'f':
        return prepare_fault(text);
      case 'r':
        return send(test::frame(packet("rnr_register", text)), way::direct);
      case 'R':
        return send(test::frame(packet("rnr_register", text)), way::socket);
      case 'u':
        return send(test::frame(packet("rnr_resign", text)), way::direct);
      case 'U':
        return send(test::frame(packet("rnr_resign", text)), way::socket);
      case 'o':
        return send(test::frame(other_command(text)), way::direct);
      case 'O':
        return send(test::frame(other_command(text)), way::socket);
      case 'p':
        return send(test::frame(text), way::direct);
      case 'P':
        return send(test::frame(text), way::socket);
      case 'w':
        return send(text, way::socket);
      case 'g':
        return send(text, way::socket_without_waiting);
      default:
        return;
    }
  }

 private:
  static std::string packet(const std::string& name, const std::string& argument) {
    std::string fields;
    muro_packet<std::string>::push(fields, argument);
    muro_packet<std::string>::push(fields, name);
    return fields;
  }

  void make_restore_file(const std::string& path) {
    const std::string content = "state " + std::to_string(files_made_++);
    if (path.find("/..") != std::string::npos || path.find("//") != std::string::npos) return;
    if (path.rfind("/tmp/", 0) != 0 && path.rfind(kSessionsRoot, 0) != 0) return;
    if (mac.make_file(path, content)) contents_.push_back(content);
  }

  void prepare_fault(const std::string& text) {
    if (text.size() != 2) return;
    fault_ = static_cast<fake::fault>(1 + (text[0] & 3));
    good_operations_ = text[1] & 7;
  }

  static std::string other_command(const std::string& text) {
    const std::size_t bar = std::min(text.find('|'), text.size());
    return packet(text.substr(0, bar), bar < text.size() ? text.substr(bar + 1) : "");
  }

  /// The body that the server is to see, false for what is no whole frame.
  static bool body_of(const std::string& bytes, std::string& body) {
    std::uint32_t length = 0;
    if (bytes.size() < sizeof length) return false;
    std::memcpy(&length, bytes.data(), sizeof length);
    if (length > 0x100000 || bytes.size() - sizeof length < length) return false;
    body = bytes.substr(sizeof length, length);
    return true;
  }

  void send(const std::string& bytes, way how) {
    std::string body;
    const bool whole = body_of(bytes, body);
    fake::system wanted = mac;
    model expected(wanted, own_);
    mac.permitted = whole ? permission_for(body, own_) : fake::permission{};
    const bool daemon_stood = mac.exists(own_daemon_file());
    mac.next_fault = fault_;
    mac.good_operations = good_operations_;
    logged.clear();
    const std::string reply = how == way::direct ? test::frame(ask(body)) : exchange(bytes, how);
    fuzz::require_equal(reply,
                        whole && how != way::socket_without_waiting ? std::string(4, '\0') : "",
                        "a whole frame, and it alone, is answered by an empty frame");
    const bool failed = mac.next_fault != fault_;
    mac.next_fault = fake::fault::none;
    if (whole) expected.execute(body);
    if (!failed) check_outcome(wanted, expected.log);
    check_daemon(daemon_stood);
    check_restore_files(whole);
    fault_ = fake::fault::none;
  }

  std::string ask(const std::string& body) {
    return (own_.empty() ? running->shared : running->own).handle_request(body);
  }

  std::string exchange(const std::string& bytes, way how) {
    const std::string path = "/tmp/" + endpoint_name(own_.empty() ? "" : "_abc") + ".ipc";
    {
      test::frame_client client(path);
      client.send_bytes(bytes);
      client.stop_sending();
      // The server closes a connection once it is through with it: the handler rests then.
      if (how == way::socket) return client.receive_all();
    }
    // One connection at a time: once the next one is through, so is the one that was left.
    test::frame_client next(path);
    next.stop_sending();
    return next.receive_all();
  }

  static void check_outcome(const fake::system& wanted, const std::vector<std::string>& log) {
    fuzz::require(mac == wanted, "the system is as the command leaves it");
    fuzz::require(logged.size() == log.size(), "as many lines are logged as the command tells");
    for (std::size_t i = 0; i < log.size(); ++i)
      fuzz::require_equal(logged[i], log[i], "the line that the command logs");
  }

  static std::string own_daemon_file() {
    return osx::launchd_daemon_path(mac.permitted.daemon_label);
  }

  static void check_daemon(bool stood) {
    if (stood && mac.exists(osx::launchd_agent_path(mac.permitted.agent_label)))
      fuzz::require(mac.exists(own_daemon_file()),
                    "a session whose agent is still there keeps its daemon");
  }

  void check_restore_files(bool whole) {
    const bool removes = whole && !mac.permitted.deleted_folder.empty();
    std::erase_if(contents_, [&](const std::string& content) {
      const auto places = std::count_if(mac.files.begin(), mac.files.end(),
                                        [&](const auto& file) { return file.second == content; });
      fuzz::require(places == 1 || (places == 0 && removes),
                    "a restore file stands at exactly one place");
      return places == 0;
    });
  }

  std::string own_;
  fake::fault fault_ = fake::fault::none;
  int good_operations_ = 0;
  int files_made_ = 0;
  std::vector<std::string> contents_;  // of the restore files that there are
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  start();
  fuzz::input in(data, size);
  sequence steps(in.until('\n'));
  for (std::size_t i = 0; i < kMostSteps && !in.empty(); ++i) {
    fuzz::input line(in.until('\n'));
    const char kind = static_cast<char>(line.byte());
    steps.step(kind, std::string(line.rest()));
  }
  return 0;
}
