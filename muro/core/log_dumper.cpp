#include "muro/core/log_dumper.h"

#include <pthread.h>
#include <signal.h>

#include <memory>
#include <utility>

#include "muro/core/exception.h"

namespace muro {

namespace {

/// How long a first line waits for the dumper's thread to come up. Usually no time at all; the
/// limit is for a caller that holds a lock which every new thread needs.
constexpr long long kStartWait_ms = 1000;

constinit std::atomic<log_dumper*> g_dumper{nullptr};
constinit std::atomic<bool> g_forked{false};
constinit thread_local bool t_is_dumper = false;

void mark_forked() {
  g_forked = true;
}

/// Signals are for threads that have handlers in mind; a closed standard error is no reason to end
/// the process either.
void block_signals() {
  sigset_t all;
  sigfillset(&all);  // a macro on macOS: no scope in front
  ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

/// Past the dumper's queue, locks and clock, which may be broken or belong to a parent process.
template <class Entry>
void write_straight(const Entry& entry) {
  log_queue alone;
  alone.push(entry);
  write_to_stderr(alone, nullptr);
}

}  // namespace

log_dumper::log_dumper()
    : thread(false, "log_dumper", 0), runs_(0x7fffffff, 0), wake_up_(0x7fffffff, 0) {}

log_dumper& log_dumper::instance() {
  log_dumper* const dumper = g_dumper;
  return dumper != nullptr ? *dumper : make_instance();
}

log_dumper& log_dumper::make_instance() {
  log_dumper* dumper = nullptr;
  auto made = std::make_unique<log_dumper>();
  if (!g_dumper.compare_exchange_strong(dumper, made.get())) return *dumper;
  ::pthread_atfork(nullptr, nullptr, mark_forked);
  return *made.release();
}

template <class Entry>
void log_dumper::push_entry(const Entry& entry) {
  if (g_forked) return write_straight(entry);
  try {
    instance().enqueue(entry);
  } catch (const exception&) {
    // No dumper can be made, or its lock does not work.
    write_straight(entry);
  }
}

void log_dumper::push(const text_parts& parts) {
  push_entry(parts);
}

void log_dumper::push(const raw_log_line& line) {
  push_entry(line);
}

void log_dumper::wait_for_flush() {
  log_dumper* const dumper = g_dumper;
  if (dumper != nullptr && !g_forked && !t_is_dumper) dumper->wait();
}

template <class Entry>
void log_dumper::enqueue(const Entry& entry) {
  bool was_idle;
  {
    const rec_lock lock(mutex_);
    was_idle = queue_is_idle_locked();
    pending_.push(entry);
  }
  if (was_idle) wake_up();
  start_if_needed();
}

void log_dumper::wake_up() {
  try {
    wake_up_.post_to_stay();
  } catch (const exception&) {
    // The count is given all the same.
  }
}

void log_dumper::wait() {
  semaphore flushed(0x7fffffff, 0);
  bool was_idle;
  {
    const rec_lock lock(mutex_);
    was_idle = queue_is_idle_locked();
    // Nothing to wait for, and nobody: all lines so far went straight to standard error.
    if (was_idle && progress_ == progress::idle) return;
    waiters_.push_back(&flushed);
  }
  if (was_idle) wake_up();
  start_if_needed();
  flushed.wait();
  // The dumper posts under the mutex and must have let go of the semaphore.
  const rec_lock dumper_is_out(mutex_);
}

void log_dumper::start_dumping() {
  // Whoever comes here while a start is under way leaves his line to it: another thread, or this
  // one with the report that the start is failing.
  progress expected = progress::idle;
  if (!progress_.compare_exchange_strong(expected, progress::starting)) return;
  try {
    detach();
  } catch (...) {
    // First idle, then the queue: a line that came too late for it starts the thread itself.
    progress_ = progress::idle;
    return dump_without_thread();
  }
  progress_ = progress::running;
  runs_.wait_ms(kStartWait_ms);
}

void log_dumper::dump_without_thread() {
  batch taken;
  take_queue(taken);
  log_text::clock clock;
  write_to_stderr(taken.entries, &clock);
  finish(taken);
}

void log_dumper::run() {
  t_is_dumper = true;
  block_signals();
  runs_.post();
  for (;;) {
    take_queue(batch_);
    output_.write(batch_.entries);
    finish(batch_);
    wake_up_.wait();
  }
}

void log_dumper::take_queue(batch& taken) {
  const rec_lock lock(mutex_);
  taken.entries.swap(pending_);
  taken.waiters.swap(waiters_);
}

void log_dumper::finish(batch& done) {
  if (done.waiters.empty()) return;
  const rec_lock lock(mutex_);
  for (semaphore* waiter : done.waiters) waiter->post();
  done.waiters.clear();
}

}  // namespace muro
