// A flood of log lines from several threads, mixed in length and partly repeated, with the echo off:
// the files have to stay within their bounds at every moment, no line may be missing from what is
// left of them, and memory and descriptors have to stay what they were after the warm-up.
//
// A caller of the log never waits for it, so the queue has no bound of its own: in the first two
// runs each thread asks for a flush every so often, as a program that cares for its memory would.
// The third one never does; there memory is measured and only the rest is held to bounds.
//
// KORVEL_SOAK_LINES is how many lines a run has, 100,000 where it is not set.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/log_output.h"
#include "muro/sys/time.h"
#include "soak/process_state.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr int kThreads = 4;
constexpr long kFlushEvery = 5000;
constexpr long kLookEvery = 500;
constexpr long kSize = 0x100000;
constexpr std::size_t kLongest = 2000;

// Until it is rotated or cut a file may have grown by one slice and the line that filled it.
constexpr long kBound = kSize + static_cast<long>(muro::log_output::kSlice + 2 * kLongest);

// What the allocator may keep for itself, whatever the number of lines.
#ifdef __SANITIZE_ADDRESS__
constexpr long kMemorySlack_kb = 600L * 1024;  // what is freed is kept for a while to see late uses
#else
constexpr long kMemorySlack_kb = 32 * 1024;
#endif

long asked_lines() {
  const char* const asked = std::getenv("KORVEL_SOAK_LINES");
  return asked != nullptr ? std::atol(asked) : 100000;
}

void raise_to(std::atomic<long>& maximum, long value) {
  long before = maximum;
  while (before < value && !maximum.compare_exchange_weak(before, value)) {
  }
}

class log_flood : public testing::Test {
 protected:
  log_flood() {
    muro::errlog::set_log_to_stderr(false);
    muro::errlog::set_log_file(path());
  }
  ~log_flood() override {
    muro::errlog::wait_for_flush();
    muro::errlog::set_log_rotate(0, 0);
    muro::errlog::set_log_cut(0);
  }

  std::string path() const { return dir_ / "log"; }
  std::string old_path() const { return path() + ".0"; }

  void look_at(const std::string& file) {
    struct stat status;
    if (::stat(file.c_str(), &status) == 0) raise_to(largest_file_, status.st_size);
  }

  /// One thread's share: every tenth message is logged three times in a row.
  void log_lines(int thread, long lines, long flush_every) {
    const muro::errlog log("flood");
    const std::string padding(kLongest - 100, 'x');
    for (long i = 0; i < lines; ++i) {
      const std::size_t length = i % 97 == 0 ? padding.size() : static_cast<std::size_t>(i % 120);
      const std::string numbered = "#" + std::to_string(thread) + " " + std::to_string(i) + " ";
      const std::string text = i % 10 < 3 ? "a message that comes again and again"
                                          : numbered + padding.substr(0, length);
      log.log(0, text.data(), text.size());
      if (i % kLookEvery == 0) look_at(path()), look_at(old_path());
      if (flush_every != 0 && i % flush_every == flush_every - 1) muro::errlog::wait_for_flush();
      if (i % (kLookEvery * 20) == 0) raise_to(most_memory_kb_, soak::state_now().resident_kb);
    }
  }

  void flood(long lines, long flush_every) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([=, this] { log_lines(t, lines / kThreads, flush_every); });
    }
    for (std::thread& t : threads) t.join();
  }

  void run(const char* name, long flush_every, int lines_cut_off = 0) {
    flood(asked_lines() / 10, kFlushEvery);
    muro::errlog::wait_for_flush();
    const soak::process_state before = soak::state_now();
    most_memory_kb_ = 0;
    const long long begin_us = muro::wait_clock_us();
    flood(asked_lines(), flush_every);
    const long long logged_us = muro::wait_clock_us() - begin_us;
    muro::errlog::wait_for_flush();
    const long long written_us = muro::wait_clock_us() - begin_us;
    const soak::process_state after = soak::state_now();
    std::cout << name << ": " << asked_lines() << " lines, logged in " << logged_us / 1000
              << " ms, written in " << written_us / 1000 << " ms; largest file " << largest_file_
              << " bytes of " << kBound << "; most memory " << most_memory_kb_
              << " kB\n  before: " << before << "\n  after:  " << after << std::endl;
    EXPECT_LE(largest_file_, kBound);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    if (flush_every != 0) {
      EXPECT_LE(most_memory_kb_, before.resident_kb + kMemorySlack_kb);
      EXPECT_LE(after.resident_kb, before.resident_kb + kMemorySlack_kb);
    }
    expect_no_line_missing(lines_cut_off);
  }

  /// The newest lines are there: of each thread a run of numbers without a gap but for those that a
  /// cut has taken.
  void expect_no_line_missing(int lines_cut_off) {
    std::istringstream text(test::read_file(old_path()) + test::read_file(path()));
    std::map<int, long> last;
    long numbered = 0;
    std::string line;
    std::getline(text, line);  // a cut may begin inside it
    while (std::getline(text, line)) {
      int thread;
      long number;
      const std::size_t at = line.find("flood: #");
      if (at == std::string::npos) continue;
      ASSERT_EQ(std::sscanf(line.c_str() + at, "flood: #%d %ld ", &thread, &number), 2) << line;
      if (last.count(thread) != 0 && number != next_numbered(last[thread])) {
        ASSERT_EQ(number, next_numbered(next_numbered(last[thread]))) << thread;
        ASSERT_GE(--lines_cut_off, 0) << thread << ' ' << number;
      }
      last[thread] = number;
      ++numbered;
    }
    EXPECT_GT(numbered, 1000);
  }

  static long next_numbered(long i) { return (i + 1) % 10 == 0 ? i + 4 : i + 1; }

 private:
  const test::temp_dir dir_;
  std::atomic<long> largest_file_{0};
  std::atomic<long> most_memory_kb_{0};
};

TEST_F(log_flood, rotated_files_stay_within_their_bounds) {
  muro::errlog::set_log_rotate(kSize, 1);
  run("rotated", kFlushEvery);
}

TEST_F(log_flood, cut_file_stays_within_its_bound) {
  // Deliberate: a cut takes the newest line too, which always fills the kept half exactly. Of two
  // cuts such a gap can be in the half that is kept.
  muro::errlog::set_log_cut(kSize);
  run("cut", kFlushEvery, 2);
}

TEST_F(log_flood, files_stay_within_their_bounds_when_nobody_waits) {
  muro::errlog::set_log_rotate(kSize, 1);
  run("rotated, nobody waits", 0);
}

}  // namespace
