/// The byte buffer and the message that is built in it.

#include "netbuf/netbuf.h"

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "netbuf/netbuf_imp.h"
#include "osx/launch_data.h"
#include "tests/budget/budget.h"

namespace {

constexpr std::int32_t kAppended = 24, kPrepended = 16, kQueued = 128;

/// 1,000 appends to an empty buffer.
void netbuf_append() {
  const std::string item(kAppended, 'b');
  netbuf all;
  for (int i = 0; i < 1000; ++i) std::memcpy(all.allocate_back(kAppended), item.data(), kAppended);
  budget::keep(all);
}

/// 1,000 prepends to an empty buffer.
void netbuf_prepend() {
  const std::string item(kPrepended, 'b');
  netbuf all;
  for (int i = 0; i < 1000; ++i) {
    std::memcpy(all.allocate_front(kPrepended), item.data(), kPrepended);
  }
  budget::keep(all);
}

/// A look at the front, a drop there and an append, 100 times, in a queue that stays as long.
void netbuf_queue() {
  static netbuf queue = [] {
    netbuf filled;
    filled.append(std::string(8192, 'b'));
    return filled;
  }();
  static const std::string item(kQueued, 'b');
  std::array<char, 24> head{};
  for (int i = 0; i < 100; ++i) {
    queue.copy_front(head.data(), head.size());
    budget::keep(head);
    queue.erase_front(kQueued);
    std::memcpy(queue.allocate_back(kQueued), item.data(), kQueued);
  }
}

/// The message that submits a job, as a string.
void submit_job() {
  static const std::vector<std::string> command = {
      "/bin/launchctl", "load", "-S", "Aqua",
      "/Library/LaunchAgents/com.norvane.korvel.restart.0123456789.plist"};
  std::vector<netbuf> words;
  for (const std::string& word : command) words.push_back(launch_data::add_string(word));
  const netbuf job = launch_data::add_dict({
      {"KeepAlive", launch_data::add(launch_data::kBoolean, 0, 0)},
      {"Label", launch_data::add_string("norvane.jobsubmit")},
      {"OnDemand", launch_data::add(launch_data::kBoolean, 0, 1)},
      {"ProgramArguments", launch_data::add_vect(words, launch_data::kArray)},
      {"RunAtLoad", launch_data::add(launch_data::kBoolean, 0, 1)},
  });
  budget::keep(launch_data::add_dict({{"SubmitJob", job}}).to_string());
}

}  // namespace

int main(int argc, char** argv) {
  netbuf_imp::install_builtin();
  return budget::run(argc, argv,
                     {{"netbuf_append", netbuf_append},
                      {"netbuf_prepend", netbuf_prepend},
                      {"netbuf_queue", netbuf_queue},
                      {"submit_job", submit_job}});
}
