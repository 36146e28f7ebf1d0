#include "tests/front/mac.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <stdexcept>

#include "front/startup.h"
#include "ipc/packet.h"
#include "muro/core/errlog.h"
#include "muro/sys/time.h"
#include "platform/linux/property_list_xml.h"
#include "tests/support/frame_client.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace test {
namespace {

constexpr const char* kCalls = "/private/var/launchctl.calls";

std::mutex record_mutex;
lines* logged = new lines;
std::vector<unsigned long long>* paused = new std::vector<unsigned long long>;
std::function<void(unsigned long long)>* pause_action = new std::function<void(unsigned long long)>;

void record_line(const char* text, std::size_t length) {
  const std::lock_guard lock(record_mutex);
  logged->emplace_back(text, length);
}

void record_pause(unsigned long long microseconds) {
  std::function<void(unsigned long long)> action;
  {
    const std::lock_guard lock(record_mutex);
    paused->push_back(microseconds);
    action = *pause_action;
  }
  if (action) action(microseconds);
}

void reset_records() {
  const std::lock_guard lock(record_mutex);
  logged->clear();
  paused->clear();
  *pause_action = nullptr;
}

/// The runtime starts once for all tests of the process.
class runtime : public testing::Environment {
 public:
  void SetUp() override {
    start_runtime();
    log_to_default_file();
    muro::errlog::set_log_to_stderr(false);
    muro::errlog::set_log_line_hook(record_line);
    muro::x_pause_us = record_pause;
  }
};

[[maybe_unused]] testing::Environment* const registered =
    testing::AddGlobalTestEnvironment(new runtime);

void install_launchctl() {
  remove_tree(kCalls);
  make_file("/bin/launchctl", std::string("#!/bin/sh\necho \"$*\" >> ") + kCalls + "\n");
  fs::permissions("/bin/launchctl", fs::perms(0755));
}

/// Whether a process other than this one and the root's first is there.
bool other_processes() {
  const std::string own = std::to_string(::getpid());
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos && name != "1" && name != own)
      return true;
  }
  return false;
}

void wait_for_other_processes() {
  if (!wait_until([] { return !other_processes(); })) throw std::runtime_error("still running");
}

std::vector<char*> pointers(lines& strings) {
  std::vector<char*> list;
  for (std::string& s : strings) list.push_back(s.data());
  list.push_back(nullptr);
  return list;
}

platform::property_list job(const std::string& path) {
  const auto list = platform::read_property_list_xml(content_of(path));
  if (!list) throw std::runtime_error("no property list: " + path);
  return *list;
}

}  // namespace

mac::mac() {
  wait_for_other_processes();
  for (const char* folder : {"/Library/VeskRuntime", "/Library/LaunchAgents",
                             "/Library/LaunchDaemons", "/Applications/Korvel.app", "/opt"})
    remove_tree(folder);
  fs::create_directory("/Library/LaunchAgents");
  fs::create_directory("/Library/LaunchDaemons");
  for (const std::string& name : in_tmp()) remove_tree("/private/tmp/" + name);
  install_launchctl();
  reset_records();
}

mac::~mac() {
  reset_records();
}

lines log_lines() {
  const std::lock_guard lock(record_mutex);
  return *logged;
}

lines log_of(const std::string& scope) {
  lines found;
  for (const std::string& line : log_lines())
    if (line.compare(0, scope.size() + 2, scope + ": ") == 0)
      found.push_back(line.substr(scope.size() + 2));
  return found;
}

void log_to_default_file() {
  muro::errlog::set_log_file("/private/var/log/front_tests.out");
}

std::vector<unsigned long long> pauses() {
  const std::lock_guard lock(record_mutex);
  return *paused;
}

void on_pause(std::function<void(unsigned long long)> action) {
  const std::lock_guard lock(record_mutex);
  *pause_action = std::move(action);
}

lines launchctl_calls() {
  wait_for_other_processes();
  lines calls;
  std::string line;
  std::ifstream file(kCalls);
  while (std::getline(file, line)) calls.push_back(line);
  return calls;
}

bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

struct stat status_of(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) throw std::runtime_error("lstat " + path);
  return status;
}

mode_t mode_of(const std::string& path) {
  return status_of(path).st_mode & 07777;
}

void make_file(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  write_file(path, content);
}

std::string content_of(const std::string& path) {
  return read_file(path);
}

void remove_tree(const std::string& path) {
  fs::remove_all(path);
}

lines in_tmp() {
  lines found;
  for (const auto& entry : fs::directory_iterator("/private/tmp"))
    if (entry.path().has_extension() || !entry.is_directory())
      found.push_back(entry.path().filename());
  std::sort(found.begin(), found.end());
  return found;
}

lines tree(const std::string& path) {
  lines found;
  for (const auto& entry : fs::recursive_directory_iterator(path))
    found.push_back(fs::relative(entry.path(), path));
  std::sort(found.begin(), found.end());
  return found;
}

void install_client() {
  make_file(kClientExecutable, "client");
  fs::permissions(kClientExecutable, fs::perms(0755));
  make_file(std::string(kClientBundle) + "/Contents/Info.plist", "info");
  make_file(std::string(kClientBundle) + "/Contents/Resources/en.lproj/texts", "texts");
}

std::string session_file(const std::string& restore_id) {
  return "/Library/VeskRuntime/sessions/" + restore_id + "/" + restore_id + ".dat";
}

std::string agent_file(const std::string& restore_id) {
  return "/Library/LaunchAgents/com.norvane.korvel.restart." + restore_id + ".plist";
}

std::string daemon_file(const std::string& restore_id) {
  return "/Library/LaunchDaemons/com.norvane.korvel.helper." + restore_id + ".plist";
}

std::string label_in(const std::string& job_file) {
  return job(job_file).find("Label")->text;
}

lines arguments_in(const std::string& job_file) {
  lines arguments;
  const platform::property_list list = job(job_file);
  for (const auto& item : list.find("ProgramArguments")->items) arguments.push_back(item.text);
  return arguments;
}

bool wait_until(const std::function<bool()>& condition) {
  for (int i = 0; i < 10000; ++i) {
    if (condition()) return true;
    ::usleep(1000);
  }
  return false;
}

program::program(lines command, lines environment, const std::vector<int>& closed) {
  static int number = 0;
  output_ = "/private/var/output." + std::to_string(++number);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 1, output_.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
  ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
  for (const int descriptor : closed) ::posix_spawn_file_actions_addclose(&actions, descriptor);
  const int error = ::posix_spawn(&pid_, command[0].c_str(), &actions, nullptr,
                                  pointers(command).data(), pointers(environment).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + command[0]);
}

program::~program() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

int program::wait() {
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string packet(const std::string& command, const std::string& argument) {
  std::string body;
  muro_packet<std::string>::push(body, argument);
  muro_packet<std::string>::push(body, command);
  return body;
}

bool wait_for_endpoint(const std::string& endpoint) {
  return wait_until([&endpoint] {
    try {
      return frame_client("/tmp/" + endpoint + ".ipc").descriptor() >= 0;
    } catch (const std::runtime_error&) {
      return false;
    }
  });
}

std::string request(const std::string& endpoint, const std::string& body) {
  return frame_client("/tmp/" + endpoint + ".ipc").ask(body).value_or("no reply");
}

}  // namespace test
