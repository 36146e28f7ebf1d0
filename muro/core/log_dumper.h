#pragma once

/// The queue of log lines and the one thread that empties it.
///
///     any thread: push -> [ pending | waiters ] --wake-up--> dumper: take all, write, wake waiters
///
/// A caller appends to the queue under a short lock and goes on; the dumper takes the whole queue
/// at once and does all output without the lock. A process has one dumper: made with the first
/// line, never ended, never destroyed, so that it may work on while the process ends.
///
/// Whoever logs in a forked child finds no dumper thread there, and locks that nobody will ever
/// open. So a child that was forked while its parent had a dumper writes its lines straight to
/// standard error, without timestamps, and never touches the log file.

#include <atomic>
#include <vector>

#include "muro/core/log_output.h"
#include "muro/core/log_queue.h"
#include "muro/sys/thread.h"

namespace muro {

class log_dumper : public thread {
 public:
  log_dumper();

  /// Queues a text (its parts put together) or a raw line, and sees to it that the dumper runs. Does
  /// no output, except when the thread cannot be started: all that is queued then goes to standard
  /// error at once, and the next line tries to start it again. May be called while a start is failing,
  /// on that thread too. Where not even locks can be had the entry alone goes there. Throws
  /// `std::bad_alloc` alone; the entry was not queued then.
  static void push(const text_parts& parts);
  static void push(const raw_log_line& line);

  /// Blocks, without limit, until all that was queued before the call is out. Returns at once when
  /// nothing was ever queued, and on the dumper's own thread, where waiting would never end.
  static void wait_for_flush();

 protected:
  void run() override;

 private:
  enum class progress { idle, starting, running };

  static log_dumper& instance();
  static log_dumper& make_instance();

  template <class Entry>
  static void push_entry(const Entry& entry);
  template <class Entry>
  void enqueue(const Entry& entry);
  void wake_up();
  void wait();
  bool queue_is_idle_locked() const { return pending_.empty() && waiters_.empty(); }
  void start_if_needed() {
    if (progress_ == progress::idle) start_dumping();
  }
  void start_dumping();

  struct batch {
    log_queue entries;
    std::vector<semaphore*> waiters;
  };
  void take_queue(batch& taken);
  void finish(batch& done);
  void dump_without_thread();

  std::atomic<progress> progress_{progress::idle};
  semaphore runs_;
  semaphore wake_up_;

  rec_mutex mutex_;  // guards pending_ and waiters_; never held during output
  log_queue pending_;
  std::vector<semaphore*> waiters_;

  [[maybe_unused]] cache_line_gap gap_;
  batch batch_;        // the thread's own
  log_output output_;  // the thread's own
};

}  // namespace muro
