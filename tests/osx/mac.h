#pragma once

/// The Mac that a test of launchd control stands on: a private root in which the test is root.
///
/// What the code under test does is kept as one list of lines, in order:
///
///     log NAME: TEXT              a line of the error log
///     pause MICROSECONDS          a fixed pause; it takes no time here
///     run PROGRAM|WORD|...        a run of a program that `record` stands in for
///
/// Detached programs are waited for at the next pause and at the end, so the order never depends
/// on how fast they are.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/hooks.h"
#include "muro/sys/unique_fd.h"
#include "tests/support/temp_dir.h"

namespace test {

using lines = std::vector<std::string>;

class mac : public ::testing::Test {
 protected:
  void SetUp() override {
    current = this;
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    for (const char* folder : {kRecorded, kStubs}) {
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
      ASSERT_EQ(::chmod(folder, 01777), 0);
    }
    remove_from("/Library/LaunchAgents", "");
    remove_from("/Library/LaunchDaemons", "");
    remove_from("/private/tmp", "launchd-");
    set_release("10.11.6");
    write_file("/var/run/utmp", "");
    ::setutxent();
    ::endutxent();
    muro::errlog::set_log_filter(keep_log_line);
    muro::x_pause_us = keep_pause;
  }

  void TearDown() override {
    wait_for_detached();
    muro::errlog::set_log_filter(nullptr);
    muro::x_pause_us = nullptr;
    muro::x_relative_time = nullptr;
    for (const std::string& path : covered_) ::umount2(path.c_str(), MNT_DETACH);
    for (const auto& [path, target] : replaced_) {
      ::unlink(path.c_str());
      if (!target.empty()) std::filesystem::create_symlink(target, path);
    }
    ::setenv("PATH", "/usr/bin:/bin:/usr/sbin:/sbin", 1);
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    current = nullptr;
  }

  /// Everything done so far.
  lines done() {
    wait_for_detached();
    const std::lock_guard lock(mutex_);
    collect_runs_locked();
    return done_;
  }

  /// Only the lines that begin with `kind`, without it.
  lines done(const std::string& kind) {
    lines found;
    for (const std::string& line : done()) {
      if (line.compare(0, kind.size() + 1, kind + " ") == 0)
        found.push_back(line.substr(kind.size() + 1));
    }
    return found;
  }

  /// Called at every pause, once it is in the list.
  std::function<void()> at_pause;

  /// Puts a program in the place of `path` that records how it is run and by whom, then goes on
  /// with the shell text `then`.
  void record(const std::string& path, const std::string& then = "exit 0") {
    const std::string stub = kStubs + ("/" + std::to_string(stubs_++));
    write_file(stub, "#!/bin/sh\nfile=$(/usr/bin/mktemp " + std::string(kRecorded) +
                         "/.XXXXXX)\n"
                         "for word in \"$0\" \"$@\"; do printf '%s\\0' \"$word\"; done >$file\n"
                         "/usr/bin/stat -c %u /proc/$$ >$file.user\nnumber=0\n"
                         "until /usr/bin/ln $file " +
                         kRecorded + "/$number 2>/dev/null; do number=$((number + 1)); done\n" +
                         "/usr/bin/mv $file.user " + kRecorded + "/$number.user\n" + then + "\n");
    ASSERT_EQ(::chmod(stub.c_str(), 0755), 0);
    put_in_place(stub, path);
  }

  /// The user who ran the recorded program number `index`.
  static int user_of_run(int index) {
    return std::atoi(read_file(kRecorded + ("/" + std::to_string(index)) + ".user").c_str());
  }

  /// Makes the runtime's clock stand at 0, but for a step at each look while a recorded program is
  /// hanging in `kHang`.
  static void step_clock_while_hanging(long long step_ms) {
    clock_ms = 0;
    clock_step_ms = step_ms;
    muro::x_relative_time = [] {
      if (is_hanging()) clock_ms += clock_step_ms;
      return clock_ms;
    };
  }
  static constexpr const char* kHang = "exec /usr/bin/sleep 1000";
  inline static long long clock_ms = 0;

  static void set_release(const std::string& version) {
    write_file("/System/Library/CoreServices/SystemVersion.plist",
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
               "<key>ProductVersion</key><string>" +
                   version + "</string></dict></plist>\n");
  }

  /// Adds a login record. `user` and `line` fill their fields to the last byte if long enough, and
  /// the fields behind them hold text of their own.
  static void add_login(pid_t pid, const std::string& user, const std::string& line = "console",
                        short type = USER_PROCESS) {
    utmpx record{};
    record.ut_type = type;
    record.ut_pid = pid;
    std::memcpy(record.ut_id, "id", 2);
    std::memcpy(record.ut_host, "host", 4);
    std::memcpy(record.ut_user, user.data(), std::min(user.size(), sizeof record.ut_user));
    std::memcpy(record.ut_line, line.data(), std::min(line.size(), sizeof record.ut_line));
    std::ofstream("/var/run/utmp", std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char*>(&record), sizeof record);
  }

  /// Makes a user's launchd folder as releases before 10.10 have it, and returns its path.
  static std::string make_launchd_folder(const std::string& name, uid_t uid) {
    const std::string path = "/tmp/launchd-" + name;
    EXPECT_EQ(::mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(::chown(path.c_str(), uid, 20), 0);
    return path;
  }

  /// Users are real here but where the machine's namespaces hold a single id.
  static bool has_users() {
    return read_file("/etc/macroot").find("ids=single") == std::string::npos;
  }

 private:
  static constexpr const char* kRecorded = "/recorded";
  static constexpr const char* kStubs = "/stubs";
  inline static mac* current = nullptr;
  inline static long long clock_step_ms = 0;

  static bool is_hanging() {
    for (const pid_t pid : children(true)) {
      if (process_file(pid, "comm") == "sleep\n") return true;
    }
    return false;
  }

  static int keep_log_line(const char* text, std::size_t length) {
    if (current != nullptr) current->add("log " + std::string(text, length));
    return 0;
  }

  // A pause while a child runs is the wait for that child, however long it takes; it is not told.
  static void keep_pause(unsigned long long microseconds) {
    if (!children(true).empty()) {
      ::usleep(1000);
      return;
    }
    wait_for_detached();
    current->add("pause " + std::to_string(microseconds));
    if (current->at_pause) current->at_pause();
  }

  // Never the whole of /tmp: the machine's build folder may be shown in it.
  static void remove_from(const std::string& folder, const std::string& prefix) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      const std::string name = entry.path().filename();
      if (name.compare(0, prefix.size(), prefix) == 0) std::filesystem::remove_all(entry.path());
    }
  }

  // What /proc tells of a process; nothing when it has just ended.
  static std::string process_file(pid_t pid, const std::string& name) {
    const muro::unique_fd file(
        ::open(("/proc/" + std::to_string(pid) + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    char text[1024];
    const ssize_t length = file.is_open() ? ::read(file.get(), text, sizeof text) : -1;
    return std::string(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  }

  // The processes whose parent this one is, from inside its POSIX session or from outside.
  static std::vector<pid_t> children(bool same_session) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const pid_t pid = std::atoi(entry.path().filename().c_str());
      if (pid == 0) continue;
      const std::string stat = process_file(pid, "stat");
      int parent = 0;
      int session = 0;
      const std::size_t name_end = stat.rfind(')');
      if (name_end == std::string::npos) continue;
      if (std::sscanf(stat.c_str() + name_end, ") %*c %d %*d %d", &parent, &session) != 2) continue;
      if (parent == ::getpid() && (session == ::getsid(0)) == same_session) found.push_back(pid);
    }
    return found;
  }

  static void wait_for_detached() {
    for (const pid_t pid : children(false)) ::waitpid(pid, nullptr, 0);
  }

  void add(const std::string& line) {
    const std::lock_guard lock(mutex_);
    collect_runs_locked();
    done_.push_back(line);
  }

  void collect_runs_locked() {
    for (;; ++runs_) {
      const std::string path = kRecorded + ("/" + std::to_string(runs_));
      if (!std::filesystem::exists(path)) return;
      std::string words = read_file(path);
      if (!words.empty()) words.pop_back();
      for (char& byte : words) byte = byte == '\0' ? '|' : byte;
      done_.push_back("run " + words);
    }
  }

  // /bin belongs to the root and holds links; /usr is the machine's own, read-only, and covered.
  void put_in_place(const std::string& stub, const std::string& path) {
    if (path.compare(0, 5, "/usr/") == 0) {
      ASSERT_EQ(::mount(stub.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0) << path;
      covered_.push_back(path);
      return;
    }
    std::error_code none;
    const std::string target = std::filesystem::read_symlink(path, none);
    replaced_.emplace_back(path, none ? "" : target);
    ::unlink(path.c_str());
    std::filesystem::rename(stub, path);
  }

  std::mutex mutex_;
  lines done_;
  int runs_ = 0;
  int stubs_ = 0;
  lines covered_;
  std::vector<std::pair<std::string, std::string>> replaced_;
};

/// Acts as another user for a scope, as a part of the process that is not root would find it.
class acting_as {
 public:
  explicit acting_as(uid_t uid) { EXPECT_EQ(::seteuid(uid), 0); }
  ~acting_as() { EXPECT_EQ(::seteuid(0), 0); }
  acting_as(const acting_as&) = delete;
  acting_as& operator=(const acting_as&) = delete;
};

}  // namespace test

/// Skips a test that needs more than one user where there is only one; in CI that is a failure.
#define REQUIRE_USERS()                                                                   \
  do {                                                                                    \
    if (!has_users()) {                                                                   \
      ASSERT_EQ(std::getenv("CI"), nullptr) << "this machine's roots hold a single user"; \
      GTEST_SKIP() << "this machine's roots hold a single user";                          \
    }                                                                                     \
  } while (false)
