// The main of tests that need a Mac: runs them in a private Mac root of this process's own.
//
// Unless the process only lists its tests or stands in a root already, it replaces itself by the
// launcher, which starts it again inside. A machine that allows no root ends it with status 77 and
// the reason, which ctest counts as a skip; where CI is set, that is a failure with status 1.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

bool only_lists(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--gtest_list_tests") == 0) return true;
  return false;
}

/// Whether the variable is set by the launcher and the mark it left names this very root: a shell
/// that inherited the variable, or a root within a root, does not count.
bool inside() {
  struct stat own {};
  if (std::getenv("KORVEL_MACROOT") == nullptr || ::stat("/proc/self/ns/pid", &own) != 0)
    return false;
  const std::string wanted = "pid_namespace=" + std::to_string(own.st_ino);
  std::ifstream mark("/etc/macroot");
  for (std::string line; std::getline(mark, line);)
    if (line == wanted) return true;
  return false;
}

bool in_ci() {
  const char* value = std::getenv("CI");
  if (value == nullptr) return false;
  const std::string text = value;
  return !text.empty() && text != "0" && text != "false";
}

/// The variables that steer the test programs themselves; the root's environment is else its own.
bool is_passed(const std::string& variable) {
  for (const char* prefix :
       {"GTEST_", "ASAN_", "UBSAN_", "TSAN_", "LSAN_", "GCOV_", "KORVEL_SOAK_", "CI="})
    if (variable.compare(0, std::strlen(prefix), prefix) == 0) return true;
  return false;
}

std::string own_path() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  return length < 0 ? "" : std::string(path, static_cast<std::size_t>(length));
}

[[noreturn]] void enter_root(int argc, char** argv) {
  std::vector<std::string> words = {KORVEL_MACROOT_RUN, "--build", KORVEL_BUILD_DIR};
  if (in_ci()) words.emplace_back("--required");
  for (char** variable = environ; *variable != nullptr; ++variable)
    if (is_passed(*variable)) words.insert(words.end(), {"--env", *variable});
  words.insert(words.end(), {"--", own_path()});
  words.insert(words.end(), argv + 1, argv + argc);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  ::execv(KORVEL_MACROOT_RUN, arguments.data());
  std::perror("cannot run " KORVEL_MACROOT_RUN);
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (!only_lists(argc, argv) && !inside()) enter_root(argc, argv);
  ::testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
