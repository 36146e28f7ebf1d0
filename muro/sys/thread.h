#pragma once

/// Threads, semaphores and locks, straight on POSIX threads.
///
/// A thread is an object: derive from `muro::thread`, override `run`, call `detach` once. All
/// threads are detached and nothing joins them; whoever must know that a body has returned asks the
/// object (`synchronize`, or its destructor).
///
/// Everything here works before `muro::init` too, because a log line written that early starts the
/// log's thread: the recursive mutex attribute, `m_threads_mtx` and the thread attributes are made
/// by `init_murolock` and `init_thread` or by the first use, whichever comes first, and are never
/// destroyed. Both functions may be called again.
///
/// Failures throw `muro::exception` with the text ":Error in 'NAME'"; NAME is given at each
/// function. POSIX thread calls answer with an error number and leave `errno` alone, so `errno`
/// says nothing about them. Process-wide hooks (`muro_lock`, `_prevent_cb`, ...) are declared in
/// muro/core/hooks.h.

#include <pthread.h>

#include <cstdint>
#include <string>

#include "muro/core/hooks.h"

namespace muro {

/// A mutex that the thread holding it may lock again; each lock needs its unlock.
class rec_mutex {
 public:
  /// Throws "rec_mutex"; aborts the process when the recursive attribute cannot be made.
  rec_mutex();
  /// Nobody may hold or wait for the mutex.
  ~rec_mutex();
  rec_mutex(const rec_mutex&) = delete;
  rec_mutex& operator=(const rec_mutex&) = delete;
  /// Waits without limit, awake at first: most are free again in no time. Throws "lock".
  void lock();
  /// Throws "unlock", for example when the caller does not hold the mutex.
  void unlock();

 private:
  friend class rec_lock;

  void lock_taken();

  pthread_mutex_t mutex_;
};

/// Holds a `rec_mutex` for its lifetime; null holds nothing. Construction throws "lock".
class rec_lock {
 public:
  explicit rec_lock(rec_mutex* mutex) : mutex_(mutex) {
    if (mutex_ != nullptr) mutex_->lock();
  }
  explicit rec_lock(rec_mutex& mutex) : mutex_(&mutex) { mutex_->lock(); }
  ~rec_lock();
  rec_lock(const rec_lock&) = delete;
  rec_lock& operator=(const rec_lock&) = delete;

 private:
  rec_mutex* mutex_;
};

/// A counting semaphore. The thread that took the last count may destroy it at once, even while
/// the `post` that gave it has not returned yet; so it may live on the waiter's stack.
class semaphore {
 public:
  /// Starts at `initial`. `first` has no meaning. Throws "semaphore".
  semaphore(unsigned first, unsigned initial);
  virtual ~semaphore();
  semaphore(const semaphore&) = delete;
  semaphore& operator=(const semaphore&) = delete;

  /// Takes one count, waiting for it without limit. Throws "wait".
  virtual void wait();
  /// Gives one count and wakes one waiter. Throws "post" (the count is given all the same).
  virtual void post();
  /// `post` for a semaphore that is not destroyed while anybody may be in here. The waiter is woken
  /// once the lock is free, so that it does not sleep again for it at once.
  void post_to_stay();
  /// Takes one count, waiting at most `ms` milliseconds of `wait_clock_us` in all, however often
  /// the wait is woken in vain and whatever becomes of the wall clock; false when that time is
  /// over. With 0 or less it only looks. Throws "cond_".
  virtual bool wait_ms(long long ms);
  /// `wait_ms` with seconds.
  virtual bool wait(long seconds);

 private:
  pthread_mutex_t mutex_;  // guards count_
  pthread_cond_t condition_;
  long long count_;
};

/// The base of every thread of the program.
///
/// Ownership: a thread made with `self_delete` false belongs to its maker, who may destroy it at
/// any time after `detach`; the destructor then blocks until `run` has returned. As that happens in
/// the base, when the derived part is gone already, a derived class whose object can be destroyed
/// before its body has returned calls `synchronize()` first thing in its own destructor: a body
/// that starts or goes on after that would run on a dead object.
///
/// A thread made with `self_delete` true belongs to itself once `detach` has succeeded: it is
/// deleted as soon as `run` has returned, which may be before `detach` returns. Nobody may touch it
/// any more, `synchronize` included. When `detach` fails it still belongs to its maker.
class thread {
 public:
  /// `name` gets ":" and `number` behind it; an empty name stays empty.
  thread(bool self_delete, std::string name, int number);
  virtual ~thread();
  thread(const thread&) = delete;
  thread& operator=(const thread&) = delete;

  /// Starts the thread, once. Deliberate: `priority` is accepted and not used.
  /// Throws "detach" when it was started before (and starts nothing) or when the system makes no
  /// thread. In the second case "pthread_create failed: TEXT" and "error count: N" are logged on
  /// "thread startup", and N is the new value of `*thread_startup_error`; the object may be started
  /// again later. The lines are logged once `m_threads_mtx` is free: the log may have to start its
  /// own thread for them.
  void detach(int priority = 0);

  /// Blocks until the body of a started thread has returned; returns at once for a thread that was
  /// never started or has finished. Throws "wait", "post".
  void synchronize();

  const std::string& name() const { return name_; }

 protected:
  /// The thread's body. An exception that escapes ends the process.
  virtual void run() = 0;

 private:
  struct start_outcome;

  static void* start(void* object);
  static void finish();
  void create_locked(start_outcome& outcome);
  static void report_start(const start_outcome& outcome);
  static void report_failed_start(const start_outcome& outcome);

  std::string name_;
  semaphore done_;  // 1: no body is running; taken while one is
  bool self_delete_;
  bool started_ = false;
  pthread_t handle_{};
};

/// The library-wide lock behind the hooks `muro_lock` and `muro_unlock`; null when a host brought
/// its own.
extern rec_mutex* g_global_mutex;
/// Guards the thread counters and orders a thread's start against its first step; null until
/// `init_thread` or the first thread made it.
extern rec_mutex* m_threads_mtx;
/// Log category for new maxima of the thread count, a text that outlives all threads; null logs
/// none. Nothing in this system sets it. Set it before threads start.
extern const char* thread_statistics_category;

/// The threads started by `detach` and not yet finished.
std::int32_t running_threads();
/// The highest number of running threads since the last `init_thread`.
std::int32_t maximum_threads();

/// Makes the recursive mutex attribute, or aborts the process. Then makes `g_global_mutex` and sets
/// `muro_lock` and `muro_unlock`, but only if all three are unset: a host's are kept.
void init_murolock();

/// Seeds `rand` with the time, sets the thread counters to 0 (threads that run already stay
/// counted), makes `m_threads_mtx`, `thread_startup_error` (unless a host set one) and the thread
/// attributes: detached, with a stack of the system's size but at most 2 MiB.
/// Throws ":Error in 'init_thread'" when the attributes cannot be made.
void init_thread();

/// Announces a thread that this library did not start; with `init` it seeds the random generators
/// for it.
void foreign_thread(bool init);

pthread_t get_current_thread_id();

/// Ends the process: `clean` by `exit(0)`, else by SIGKILL to itself.
[[noreturn]] void silent_terminate(bool clean);

/// Ignores SIGPIPE: a write to a closed pipe or socket fails with EPIPE instead.
void disable_sigpipe();

/// Gives SIGCHLD a handler that does nothing; children still wait for `waitpid`. Slow calls that
/// the signal interrupts go on (SA_RESTART), except those that never do: `poll`, `nanosleep`.
void disable_sigchild();

}  // namespace muro

/// Holds a plain POSIX mutex for its lifetime. Construction throws ":Error in 'slock'".
class slock {
 public:
  explicit slock(pthread_mutex_t& mutex);
  ~slock();
  slock(const slock&) = delete;
  slock& operator=(const slock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};
