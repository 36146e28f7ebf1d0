#include "muro/sys/thread.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <limits>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/core/random.h"
#include "muro/sys/thread_internal.h"
#include "muro/sys/time.h"
#include "platform/clock.h"

namespace muro {

rec_mutex* g_global_mutex = nullptr;
rec_mutex* m_threads_mtx = nullptr;
const char* thread_statistics_category = nullptr;

namespace detail {

constinit thread_calls g_thread_calls{
    ::pthread_mutexattr_init,    ::pthread_mutexattr_settype, ::pthread_mutex_init,
    ::pthread_mutex_trylock,     ::pthread_mutex_lock,        ::pthread_mutex_unlock,
    platform::make_condition,    ::pthread_cond_wait,         platform::wait_condition,
    ::pthread_cond_signal,       ::pthread_attr_init,         ::pthread_attr_setdetachstate,
    ::pthread_attr_getstacksize, ::pthread_attr_setstacksize, ::pthread_create};

void make_thread_attributes(pthread_attr_t& attributes) {
  const thread_calls& calls = g_thread_calls;
  if (calls.attr_init.load()(&attributes) != 0) throw exception::function("init_thread");
  if (calls.attr_setdetachstate.load()(&attributes, PTHREAD_CREATE_DETACHED) != 0) {
    ::pthread_attr_destroy(&attributes);
    throw exception::function("init_thread");
  }
  std::size_t size = 0;
  if (calls.attr_getstacksize.load()(&attributes, &size) != 0) return;
  // A refused size leaves the system's own, which works too.
  if (size > kStackCap) calls.attr_setstacksize.load()(&attributes, capped_stack_size(size));
}

const pthread_attr_t& thread_attributes() {
  static const pthread_attr_t* const attributes = [] {
    static pthread_attr_t made;
    make_thread_attributes(made);
    return &made;
  }();
  return *attributes;
}

}  // namespace detail

namespace {

// Guarded by m_threads_mtx.
std::int32_t g_running_threads = 0;
std::int32_t g_maximum_threads = 0;

/// Made with the first mutex, which may be older than the runtime's start (a log line then needs
/// one). Without the attribute nothing can work, so a failure ends the process.
const pthread_mutexattr_t& recursive_attribute() {
  static const pthread_mutexattr_t* const attribute = [] {
    static pthread_mutexattr_t made;
    const detail::thread_calls& calls = detail::g_thread_calls;
    if (calls.mutexattr_init.load()(&made) != 0) std::abort();
    if (calls.mutexattr_settype.load()(&made, PTHREAD_MUTEX_RECURSIVE) != 0) std::abort();
    return &made;
  }();
  return *attribute;
}

/// m_threads_mtx, made by whoever needs it first: init_thread or the first thread.
rec_mutex& threads_mutex() {
  static rec_mutex* const mutex = m_threads_mtx = new rec_mutex;
  return *mutex;
}

/// The counter behind thread_startup_error; call with m_threads_mtx held.
std::int32_t& startup_errors_locked() {
  if (thread_startup_error == nullptr) thread_startup_error = new std::int32_t(0);
  return *thread_startup_error;
}

/// Apart, so that a lock that works does nothing for one that fails.
[[noreturn]] void fail(const char* function) {
  throw exception::function(function);
}

void lock_globally() {
  g_global_mutex->lock();
}
void unlock_globally() {
  g_global_mutex->unlock();
}

}  // namespace

rec_mutex::rec_mutex() {
  if (detail::g_thread_calls.mutex_init.load()(&mutex_, &recursive_attribute()) != 0) {
    fail("rec_mutex");
  }
}

rec_mutex::~rec_mutex() {
  ::pthread_mutex_destroy(&mutex_);
}

void rec_mutex::lock() {
  if (detail::g_thread_calls.mutex_trylock.load()(&mutex_) != 0) lock_taken();
}

/// Apart, like `fail`: what `lock` does after its first look.
void rec_mutex::lock_taken() {
  const detail::thread_calls& calls = detail::g_thread_calls;
  for (int look = 1; look < detail::kLooks; ++look) {
    __builtin_ia32_pause();
    if (calls.mutex_trylock.load()(&mutex_) == 0) return;
  }
  if (calls.mutex_lock.load()(&mutex_) != 0) fail("lock");
}

void rec_mutex::unlock() {
  if (detail::g_thread_calls.mutex_unlock.load()(&mutex_) != 0) fail("unlock");
}

rec_lock::~rec_lock() {
  if (mutex_ == nullptr) return;
  // A destructor has nobody to tell of a failure.
  static_cast<void>(detail::g_thread_calls.mutex_unlock.load()(&mutex_->mutex_));
}

semaphore::semaphore(unsigned /*first*/, unsigned initial) : count_(initial) {
  if (detail::g_thread_calls.mutex_init.load()(&mutex_, nullptr) != 0) {
    fail("semaphore");
  }
  if (detail::g_thread_calls.cond_init.load()(&condition_) != 0) {
    ::pthread_mutex_destroy(&mutex_);  // the destructor of a half-made object does not run
    fail("semaphore");
  }
}

semaphore::~semaphore() {
  ::pthread_cond_destroy(&condition_);
  ::pthread_mutex_destroy(&mutex_);
}

void semaphore::wait() {
  const slock lock(mutex_);
  while (count_ <= 0) {
    if (detail::g_thread_calls.cond_wait.load()(&condition_, &mutex_) != 0) {
      fail("wait");
    }
  }
  --count_;
}

void semaphore::post() {
  // The signal is sent with the mutex held: once it is released, the waiter may destroy the
  // semaphore at any instant (it is often on that thread's stack).
  const slock lock(mutex_);
  ++count_;
  if (detail::g_thread_calls.cond_signal.load()(&condition_) != 0) {
    fail("post");
  }
}

void semaphore::post_to_stay() {
  {
    const slock lock(mutex_);
    ++count_;
  }
  if (detail::g_thread_calls.cond_signal.load()(&condition_) != 0) {
    fail("post");
  }
}

bool semaphore::wait_ms(long long ms) {
  // From before the lock: the time spent waiting for it counts too.
  const time_limit limit(ms);
  const slock lock(mutex_);
  while (count_ <= 0) {
    const long long left_ms = limit.left_ms();
    if (left_ms == 0) return false;
    const int result = detail::g_thread_calls.cond_timedwait.load()(&condition_, &mutex_, left_ms);
    if (result != 0 && result != ETIMEDOUT) fail("cond_");
  }
  --count_;
  return true;
}

bool semaphore::wait(long seconds) {
  constexpr long long kLongest = std::numeric_limits<long long>::max() / 1000;
  const long long s = seconds;
  return wait_ms(s > kLongest ? kLongest * 1000 : s < -kLongest ? -kLongest * 1000 : s * 1000);
}

thread::thread(bool self_delete, std::string name, int number)
    : name_(name.empty() ? name : name + ":" + std::to_string(number)),
      done_(1, 1),
      self_delete_(self_delete) {}

thread::~thread() {
  try {
    done_.wait();
  } catch (...) {
    // A destructor has nobody to tell.
  }
}

void thread::synchronize() {
  // Takes the count and gives it back, so that the next who asks, and the destructor, find it too.
  done_.wait();
  done_.post();
}

/// What is left to tell once m_threads_mtx is free again.
struct thread::start_outcome {
  std::exception_ptr failure;
  int create_error = 0;          // of pthread_create; 0: none
  std::int32_t error_count = 0;  // with a failure
  std::int32_t new_maximum = 0;  // 0: none
};

void thread::detach(int /*priority*/) {
  start_outcome outcome;
  {
    const rec_lock lock(threads_mutex());
    if (started_) throw exception::function("detach");
    try {
      create_locked(outcome);
    } catch (...) {
      outcome.failure = std::current_exception();
      outcome.error_count = ++startup_errors_locked();
    }
  }
  // From here on the object may be gone: its body may have run and deleted it.
  report_start(outcome);
}

void thread::create_locked(start_outcome& outcome) {
  outcome.create_error = detail::g_thread_calls.create.load()(
      &handle_, &detail::thread_attributes(), &thread::start, this);
  if (outcome.create_error != 0) throw exception::function("detach");
  started_ = true;
  if (g_running_threads++ >= g_maximum_threads) {
    outcome.new_maximum = g_maximum_threads = g_running_threads;
  }
  // The new thread waits for m_threads_mtx, so its body cannot have given `done_` back already.
  done_.wait();
}

/// Logs outside m_threads_mtx: the first log line of a process starts the log's own thread, whose
/// first step takes that mutex while its creator waits for it.
void thread::report_start(const start_outcome& outcome) {
  if (outcome.failure) {
    report_failed_start(outcome);
    std::rethrow_exception(outcome.failure);
  }
  if (outcome.new_maximum > 0 && thread_statistics_category != nullptr) {
    const fmt_dbg log(thread_statistics_category);
    log.fmt_verbose("new maximum number of threads: %1%", outcome.new_maximum);
  }
}

void thread::report_failed_start(const start_outcome& outcome) {
  // The thread that cannot be started may be the log's own. Logging that would try to start it
  // again, without end; one report per failure and thread is enough.
  static thread_local bool reporting = false;
  if (reporting) return;
  reporting = true;
  try {
    const fmt_dbg log("thread startup", true);
    if (outcome.create_error != 0) {
      log.fmt_verbose("pthread_create failed: %1%", safe_strerror(outcome.create_error));
    }
    log.fmt_verbose("error count: %1%", outcome.error_count);
  } catch (...) {
    // Out of memory: the failure itself matters more than its report.
  }
  reporting = false;
}

void* thread::start(void* object) {
  const errlog scope("thread", true);
  auto* const self = static_cast<thread*>(object);
  { const rec_lock detach_is_done(threads_mutex()); }
  // Deliberate: an exception that escapes ends the process; derived classes catch their own.
  self->run();
  // Read before `done_` is given back: the owner may destroy the object at that instant.
  const bool self_delete = self->self_delete_;
  self->done_.post();
  if (self_delete) delete self;
  finish();
  return nullptr;
}

/// The end of a thread; its object may be gone.
void thread::finish() {
  {
    const rec_lock lock(threads_mutex());
    --g_running_threads;
    if (_unprevent_timeout != nullptr) _unprevent_timeout();
  }
  if (_prevent_cb != nullptr) _prevent_cb();
}

std::int32_t running_threads() {
  const rec_lock lock(threads_mutex());
  return g_running_threads;
}

std::int32_t maximum_threads() {
  const rec_lock lock(threads_mutex());
  return g_maximum_threads;
}

void init_murolock() {
  recursive_attribute();
  if (g_global_mutex != nullptr || muro_lock != nullptr || muro_unlock != nullptr) return;
  g_global_mutex = new rec_mutex;
  muro_lock = lock_globally;
  muro_unlock = unlock_globally;
}

void init_thread() {
  ::srand(static_cast<unsigned>(std::time(nullptr)));
  {
    const rec_lock lock(threads_mutex());
    // In the usual order no thread runs yet and both counters become 0. A thread that is older
    // than this call (the log's) stays counted, or its end would make the count negative.
    g_maximum_threads = g_running_threads;
    startup_errors_locked();
  }
  detail::thread_attributes();
}

void foreign_thread(bool init) {
  if (init) init_random();
}

pthread_t get_current_thread_id() {
  return ::pthread_self();
}

void silent_terminate(bool clean) {
  if (clean) std::exit(0);
  ::kill(::getpid(), SIGKILL);
  // The signal is on its way; nothing after this call may run.
  for (;;) ::pause();
}

namespace {

void set_signal_action(int signal, void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigemptyset(&action.sa_mask);  // a macro on macOS: no scope in front
  ::sigaction(signal, &action, nullptr);
}

}  // namespace

void disable_sigpipe() {
  set_signal_action(SIGPIPE, SIG_IGN, 0);
}

void disable_sigchild() {
  // A handler, not SIG_IGN: with that the system would throw away the exit status of children.
  // SA_RESTART, because the handler runs on whatever thread the signal finds, and nobody waits for
  // a child's end by having another call fail with EINTR.
  set_signal_action(
      SIGCHLD, [](int) {}, SA_RESTART);
}

}  // namespace muro

slock::slock(pthread_mutex_t& mutex) : mutex_(&mutex) {
  if (muro::detail::g_thread_calls.mutex_lock.load()(mutex_) != 0) {
    throw muro::exception::function("slock");
  }
}

slock::~slock() {
  muro::detail::g_thread_calls.mutex_unlock.load()(mutex_);
}
