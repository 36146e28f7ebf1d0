#pragma once

/// A second thread for one piece of work that consists of many jobs. The caller goes through them,
/// offers each, and does itself what finds no room:
///
///     caller --> [ up to `room` jobs ] --> the second thread
///        `--> does a job itself whenever there is no room

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace platform::detail {

/// `Job` is moved without throwing, and `work` neither throws nor allocates. For one caller.
template <class Job>
class second_thread {
 public:
  /// At most `room` jobs wait. May throw `std::bad_alloc`.
  second_thread(std::size_t room, std::function<void(Job)> work)
      : room_(room), work_(std::move(work)) {
    waiting_.reserve(room);
  }
  ~second_thread() { finish(); }
  second_thread(const second_thread&) = delete;
  second_thread& operator=(const second_thread&) = delete;

  /// Starts the thread. Where the system gives none there is never room.
  void start() noexcept {
    try {
      thread_ = std::thread([this] { do_jobs(); });
    } catch (const std::exception&) {
      return;
    }
  }

  /// Whether a job would be taken now.
  bool has_room() noexcept {
    const std::lock_guard lock(mutex_);
    return thread_.joinable() && waiting_.size() < room_;
  }

  /// Hands a job over; false without room, and then the job is still the caller's.
  bool offer(Job& job) noexcept {
    if (!has_room()) return false;
    {
      const std::lock_guard lock(mutex_);
      waiting_.push_back(std::move(job));
    }
    changed_.notify_one();
    return true;
  }

  /// Returns when all jobs are done and the thread has ended; the caller does its part of them.
  void finish() noexcept {
    {
      const std::lock_guard lock(mutex_);
      is_closed_ = true;
    }
    changed_.notify_one();
    do_jobs();
    if (thread_.joinable()) thread_.join();
  }

 private:
  // Ends when nothing waits and nothing more will come.
  void do_jobs() noexcept {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return !waiting_.empty() || is_closed_; });
      if (waiting_.empty()) return;
      Job job = std::move(waiting_.back());
      waiting_.pop_back();
      lock.unlock();
      work_(std::move(job));
      lock.lock();
    }
  }

  const std::size_t room_;
  const std::function<void(Job)> work_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Job> waiting_;  // guarded by mutex_
  bool is_closed_ = false;    // guarded by mutex_: no more will come
};

}  // namespace platform::detail
