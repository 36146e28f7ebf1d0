#pragma once

/// What a log call can cost at least: the text copied into a ring, and a wake-up for the reader if
/// it sleeps. Any thread may log; nothing is written anywhere.

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>

namespace bench {

///     ring:  | size 8 | text, padded to 8 | size 8 | text ... | 0 ...
///
/// A size is set once its text is in; what was read is cleared.
class log_ring {
 public:
  explicit log_ring(std::string_view name) : name_(name), reader_([this] { read(); }) {}
  ~log_ring() {
    ended_ = true;
    wake();
    reader_.join();
  }
  log_ring(const log_ring&) = delete;
  log_ring& operator=(const log_ring&) = delete;

  void log(std::string_view text) {
    const std::uint64_t size = name_.size() + 2 + text.size();
    const std::uint64_t start = written_.fetch_add(8 + padded(size));
    while (start + 8 + padded(size) - read_.load(std::memory_order_acquire) > kSize) wake();
    char* const item = at(start);
    std::memcpy(item + 8, name_.data(), name_.size());
    std::memcpy(item + 8 + name_.size(), ": ", 2);
    std::memcpy(item + 10 + name_.size(), text.data(), text.size());
    size_at(start).store(size, std::memory_order_seq_cst);
    if (sleeps_.load(std::memory_order_seq_cst) != 0) wake();
  }

  void flush() {
    while (read_.load(std::memory_order_acquire) != written_) std::this_thread::yield();
  }

 private:
  static constexpr std::uint64_t kSize = 1 << 20;
  static constexpr std::uint64_t kLongest = 4096;  // an item that begins near the end hangs over

  static std::uint64_t padded(std::uint64_t size) { return (size + 7) & ~std::uint64_t{7}; }
  char* at(std::uint64_t position) { return ring_.get() + position % kSize; }
  std::atomic_ref<std::uint64_t> size_at(std::uint64_t position) {
    return std::atomic_ref(*reinterpret_cast<std::uint64_t*>(at(position)));
  }

  void futex(int operation, int value) {
    ::syscall(SYS_futex, &sleeps_, operation, value, nullptr, nullptr, 0);
  }
  void wake() {
    if (sleeps_.exchange(0) != 0) futex(FUTEX_WAKE_PRIVATE, 1);
  }

  void read() {
    for (std::uint64_t position = 0; !ended_;) {
      const std::uint64_t size = size_at(position).load(std::memory_order_seq_cst);
      if (size == 0) {
        sleep_at(position);
        continue;
      }
      std::memset(at(position), 0, 8 + padded(size));
      position += 8 + padded(size);
      read_.store(position, std::memory_order_release);
    }
  }
  void sleep_at(std::uint64_t position) {
    sleeps_ = 1;
    if (size_at(position).load(std::memory_order_seq_cst) == 0 && !ended_) {
      futex(FUTEX_WAIT_PRIVATE, 1);
    }
    sleeps_ = 0;
  }

  std::string_view name_;
  std::unique_ptr<char[]> ring_{new char[kSize + kLongest]()};
  std::atomic<std::uint64_t> written_{0};
  std::atomic<std::uint64_t> read_{0};
  std::atomic<int> sleeps_{0};
  std::atomic<bool> ended_{false};
  std::thread reader_;
};

}  // namespace bench
