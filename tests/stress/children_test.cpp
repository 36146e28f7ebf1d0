// Children started while other threads hold, at any instant, the locks of memory, log and streams:
// a child that took one of those between fork and exec would wait for ever.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/sys/process.h"
#include "tests/ipc/recorder.h"
#include "tests/stress/duration.h"
#include "tests/support/processes.h"

namespace {

using muro::process;

/// Threads that allocate, log, ask for the environment and the time as fast as they can.
class busy_threads {
 public:
  busy_threads() {
    muro::errlog::set_log_filter([](const char*, std::size_t) { return 0; });
    for (int i = 0; i < 2; ++i)
      threads_.emplace_back([this] {
        const muro::fmt_dbg log("busy");
        while (!stop_) {
          std::vector<std::string> memory(50, std::string(200, 'm'));
          log.fmt_verbose("%1% and %2%", memory[0], memory.size());
          std::FILE* const file = std::fopen("/dev/null", "w");
          std::fputs("x", file);
          std::fclose(file);
        }
      });
  }
  ~busy_threads() {
    stop_ = true;
    for (std::thread& one : threads_) one.join();
    muro::errlog::set_log_filter(nullptr);
  }
  busy_threads(const busy_threads&) = delete;
  busy_threads& operator=(const busy_threads&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

TEST(stress_children, all_start_and_end_whatever_other_threads_hold) {
  const test::short_pauses quick;
  const busy_threads busy;
  const test::stress_time time;
  for (int round = 0; time.is_left(); ++round) {
    ASSERT_EQ(process::system(test::child, {"exit", "7"}, 60), 7);
    ASSERT_EQ(process::system_immediate("printf", {"text"}, nullptr, 60), "text");
    ASSERT_EQ(process::system("true", {}, -1), 0);
  }
  EXPECT_TRUE(test::has_no_children());
}

TEST(stress_children, several_threads_start_them_at_once) {
  const test::short_pauses quick;
  const test::stress_time time;
  std::vector<std::thread> starters;
  std::atomic<int> wrong{0};
  std::atomic<int> known{0};
  for (int i = 0; i < 3; ++i)
    starters.emplace_back([&] {
      while (time.is_left()) {
        long long code = 0;
        const std::string text =
            process::system_immediate(test::child, {"print", "text", "5"}, &code, 60);
        // The status is unknown where a busy machine lets no process end within a tenth of a second.
        if (text != "text" || (code != 5 && code != -1)) ++wrong;
        if (code == 5) ++known;
      }
    });
  for (std::thread& starter : starters) starter.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(known, 0);
  EXPECT_TRUE(test::has_no_children());
}

}  // namespace
