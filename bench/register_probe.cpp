/// Runs in a Mac root: what registering and resigning take a client, and what the child takes that
/// the helper waits for. Prints "NAME SECONDS" lines; the driver is register_bench.py.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/probe.h"
#include "client/korvel_rnr.h"

namespace {

void run(const std::vector<std::string>& words) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  int status = 0;
  if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0 ||
      ::waitpid(pid, &status, 0) != pid)
    std::perror(argv[0]), std::exit(1);
}

void require(korvel_rnr_status status) {
  if (status != KORVEL_RNR_DONE) std::puts(korvel_rnr_status_text(status)), std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const char* const file = argv[1];
  std::printf("id %.9f\n", bench::seconds([] { run({"id", "-u", "alice"}); }));
  std::printf("register %.9f\n", bench::seconds([file] {
                require(korvel_rnr_register(KORVEL_RNR_SHARED_ENDPOINT, file, 60000));
              }));
  std::printf("resign %.9f\n", bench::seconds([file] {
                require(korvel_rnr_resign(KORVEL_RNR_SHARED_ENDPOINT, file, 60000));
              }));
}
