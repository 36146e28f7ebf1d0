#pragma once

/// The Mac that the front's tests run on: its folders, a launchctl that only records, a log that
/// can be read at once and pauses that take no time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

using lines = std::vector<std::string>;

inline constexpr const char* kClientBundle = "/Applications/Korvel.app";
inline constexpr const char* kClientExecutable = "/Applications/Korvel.app/Contents/MacOS/korvel";

/// A fresh Mac for one test: no jobs, no sessions, nobody logged in, no client, launchctl in place.
class mac : public testing::Test {
 protected:
  mac();
  ~mac() override;
};

/// Every line logged since the test began, in order: "NAME: message".
lines log_lines();
/// The messages of one log scope.
lines log_of(const std::string& scope);

/// Points the log back at the file where the tests leave it.
void log_to_default_file();

/// Every pause since the test began, in microseconds.
std::vector<unsigned long long> pauses();
/// Called at every pause once it has been recorded; what it throws goes through the pause.
void on_pause(std::function<void(unsigned long long microseconds)> action);

/// The calls of /bin/launchctl, one line each: its arguments, joined by blanks. Started programs
/// may be detached: waits until none runs.
lines launchctl_calls();

bool exists(const std::string& path);
struct stat status_of(const std::string& path);
mode_t mode_of(const std::string& path);
/// Makes the file, and the folders above it.
void make_file(const std::string& path, const std::string& content = "content");
std::string content_of(const std::string& path);
void remove_tree(const std::string& path);
/// What lies in /tmp, but for folders without a "." in their names: the build may be shown there.
lines in_tmp();
/// Everything below a folder, as relative paths in order.
lines tree(const std::string& path);

/// The client bundle as installed, with nested folders and an executable.
void install_client();

std::string session_file(const std::string& restore_id);
std::string agent_file(const std::string& restore_id);
std::string daemon_file(const std::string& restore_id);
std::string label_in(const std::string& job_file);
lines arguments_in(const std::string& job_file);

/// Polls until the condition holds; false after ten seconds.
bool wait_until(const std::function<bool()>& condition);

/// A started program. Both its outputs go into one file.
class program {
 public:
  /// `closed` names descriptors that are closed when it starts.
  explicit program(lines command, lines environment = {}, const std::vector<int>& closed = {});
  ~program();
  program(const program&) = delete;
  program& operator=(const program&) = delete;

  pid_t pid() const { return pid_; }
  /// Waits for its end: the exit status, or the negated number of the signal.
  int wait();
  std::string output() const { return content_of(output_); }

 private:
  pid_t pid_ = -1;
  std::string output_;
};

/// A request packet with the two strings as a client appends them.
std::string packet(const std::string& command, const std::string& argument);

/// Waits until the endpoint takes connections; false after ten seconds.
bool wait_for_endpoint(const std::string& endpoint);

/// Sends one request to the endpoint; the reply, or "no reply" when the connection gave none.
std::string request(const std::string& endpoint, const std::string& body);

}  // namespace test
