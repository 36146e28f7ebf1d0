// A program that answers one question of the seam as a started process sees it. PROBE names the
// question and PROBE_KEY the option, so that the argument list is the test's alone.

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"

namespace {

void say(const std::string& text) {
  if (::write(STDOUT_FILENO, text.data(), text.size()) < 0) std::abort();
}

void say_nil_string(const platform::nil_string& text) {
  say(text ? "=" + *text : "nil");
}

void say_signal(int) {
  say("signal\n");
}

int loop() {
  std::signal(SIGUSR1, say_signal);
  say("ready\n");
  platform::run_main_loop();
  say("returned\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  platform::set_arguments(argc, argv);
  const platform::autorelease_pool pool;
  const std::string question = std::getenv("PROBE");
  const char* key = std::getenv("PROBE_KEY");
  if (question == "bool") say(platform::bool_option(key) ? "true" : "false");
  if (question == "string") say_nil_string(platform::string_option(key));
  if (question == "executable") say_nil_string(platform::executable_path());
  if (question == "removed executable") {
    ::unlink(argv[0]);
    say_nil_string(platform::executable_path());
  }
  return question == "loop" ? loop() : 0;
}
