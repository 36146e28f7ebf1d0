#pragma once

/// What the tests of threads and locks share.

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/thread.h"
#include "muro/sys/thread_internal.h"
#include "tests/muro/sys/replaced.h"

namespace test {

using lines = std::vector<std::string>;

/// The text of what `action` throws; "" when it throws nothing.
template <class Action>
std::string thrown(Action action) {
  try {
    action();
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "";
}

/// A thread that runs a function and waits for its end before anything of it is destroyed.
class worker : public muro::thread {
 public:
  explicit worker(std::function<void()> body, bool self_delete = false)
      : thread(self_delete, "worker", 1), body_(std::move(body)) {}
  ~worker() override {
    synchronize();
    if (at_end) at_end();
  }

  std::function<void()> at_end;

 private:
  void run() override { body_(); }

  std::function<void()> body_;
};

/// Takes the lines that are logged meanwhile, so that the log's own thread sees none of them.
class captured_log {
 public:
  captured_log() {
    lines_.clear();
    muro::errlog::set_log_filter([](const char* text, std::size_t length) {
      const std::lock_guard lock(mutex_);
      lines_.emplace_back(text, length);
      if (on_line) on_line();
      return 0;
    });
  }
  ~captured_log() {
    muro::errlog::set_log_filter(nullptr);
    on_line = nullptr;
  }
  captured_log(const captured_log&) = delete;
  captured_log& operator=(const captured_log&) = delete;

  lines taken() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  static inline std::function<void()> on_line;

 private:
  static inline std::mutex mutex_;
  static inline lines lines_;
};

inline int refuse_thread(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
  return EAGAIN;
}

/// The system makes no threads.
struct no_threads
    : replaced<decltype(muro::detail::g_thread_calls.create), decltype(&refuse_thread)> {
  no_threads() : replaced(muro::detail::g_thread_calls.create, refuse_thread) {}
};

/// Another thread that asks for the lock over the thread counters. The lock must be free again when
/// the probe goes.
class lock_probe {
 public:
  lock_probe()
      : asking_([this] {
          muro::running_threads();
          got_.post();
        }) {}
  ~lock_probe() { asking_.join(); }

  /// A lock that is free is got at once; one that is held is not got however long this waits.
  bool is_blocked() { return !got_.wait_ms(50); }
  bool gets_it() { return got_.wait_ms(60000); }

 private:
  muro::semaphore got_{0, 0};
  std::thread asking_;
};

/// Threads that are started here have ended, to their last step, before the test is over.
class threads : public ::testing::Test {
 protected:
  void SetUp() override {
    muro::_prevent_cb = [] { ended_.post(); };
  }
  void TearDown() override {
    wait_for_ends();
    muro::_prevent_cb = nullptr;
  }

  void start(muro::thread& thread, int priority = 0) {
    thread.detach(priority);
    ++started_;
  }
  void wait_for_ends() {
    for (; started_ > 0; --started_) ended_.wait();
  }

 private:
  static inline muro::semaphore ended_{0, 0};
  int started_ = 0;
};

/// For what must be the first use of something in its process.
class fresh_process : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace test
