#pragma once

/// Threads, semaphores and locks, straight on POSIX threads.

#include <pthread.h>

#include <cstdint>
#include <string>

#include "muro/core/hooks.h"

namespace muro {

class rec_mutex {
 public:
  rec_mutex();
  ~rec_mutex();
  rec_mutex(const rec_mutex&) = delete;
  rec_mutex& operator=(const rec_mutex&) = delete;
  void lock();
  void unlock();

 private:
  pthread_mutex_t mutex_;
};

class rec_lock {
 public:
  explicit rec_lock(rec_mutex* mutex);
  explicit rec_lock(rec_mutex& mutex);
  ~rec_lock();
  rec_lock(const rec_lock&) = delete;
  rec_lock& operator=(const rec_lock&) = delete;

 private:
  rec_mutex* mutex_;
};

class semaphore {
 public:
  semaphore(unsigned first, unsigned initial);
  virtual ~semaphore();
  semaphore(const semaphore&) = delete;
  semaphore& operator=(const semaphore&) = delete;
  virtual void wait();
  virtual void post();
  virtual bool wait_ms(long long ms);
  virtual bool wait(long seconds);

 private:
  pthread_mutex_t mutex_;
  pthread_cond_t condition_;
  long long count_;
};

class thread {
 public:
  thread(bool self_delete, std::string name, int number);
  virtual ~thread();
  thread(const thread&) = delete;
  thread& operator=(const thread&) = delete;

  void detach(int priority = 0);
  void synchronize();
  const std::string& name() const { return name_; }

 protected:
  virtual void run() = 0;

 private:
  static void* start(void* object);

  std::string name_;
  semaphore done_;
  bool self_delete_;
  bool started_ = false;
  pthread_t handle_{};
};

extern rec_mutex* g_global_mutex;
extern rec_mutex* m_threads_mtx;
/// Log category for new maxima of the thread count; null logs none.
extern const char* thread_statistics_category;
std::int32_t running_threads();
std::int32_t maximum_threads();

void init_murolock();
void init_thread();
void foreign_thread(bool init);
pthread_t get_current_thread_id();
[[noreturn]] void silent_terminate(bool clean);
void disable_sigpipe();
void disable_sigchild();

}  // namespace muro

class slock {
 public:
  explicit slock(pthread_mutex_t& mutex);
  ~slock();
  slock(const slock&) = delete;
  slock& operator=(const slock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};
