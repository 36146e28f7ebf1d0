#pragma once

/// Interrupts the thread that made it, over and over, as long as it lives: every slow system call
/// of that thread fails with EINTR.

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace test {

class signal_storm {
 public:
  signal_storm() {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART
    ::sigaction(SIGUSR1, &action, &before_);
    sender_ = std::thread([this, target = ::pthread_self()] {
      while (!stop_) {
        ::pthread_kill(target, SIGUSR1);
        ++sent_;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  ~signal_storm() {
    stop_ = true;
    sender_.join();
    ::sigaction(SIGUSR1, &before_, nullptr);
  }
  signal_storm(const signal_storm&) = delete;
  signal_storm& operator=(const signal_storm&) = delete;

  int sent() const { return sent_; }

 private:
  struct sigaction before_ {};
  std::atomic<bool> stop_{false};
  std::atomic<int> sent_{0};
  std::thread sender_;
};

}  // namespace test
