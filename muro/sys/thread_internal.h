#pragma once

/// The inner side of muro/sys/thread.h, for thread.cpp and its tests alone.

#include <pthread.h>

#include <atomic>
#include <cstddef>

namespace muro::detail {

/// The system calls whose failures have a rule of their own. Tests replace single entries to make
/// them fail; an entry is read at every call.
struct thread_calls {
  std::atomic<int (*)(pthread_mutexattr_t*)> mutexattr_init;
  std::atomic<int (*)(pthread_mutexattr_t*, int)> mutexattr_settype;
  std::atomic<int (*)(pthread_mutex_t*, const pthread_mutexattr_t*)> mutex_init;
  std::atomic<int (*)(pthread_mutex_t*)> mutex_trylock;
  std::atomic<int (*)(pthread_mutex_t*)> mutex_lock;
  std::atomic<int (*)(pthread_mutex_t*)> mutex_unlock;
  std::atomic<int (*)(pthread_cond_t*) noexcept> cond_init;
  std::atomic<int (*)(pthread_cond_t*, pthread_mutex_t*)> cond_wait;
  std::atomic<int (*)(pthread_cond_t*, pthread_mutex_t*, long long wait_ms)> cond_timedwait;
  std::atomic<int (*)(pthread_cond_t*)> cond_signal;
  std::atomic<int (*)(pthread_attr_t*)> attr_init;
  std::atomic<int (*)(pthread_attr_t*, int)> attr_setdetachstate;
  std::atomic<int (*)(const pthread_attr_t*, std::size_t*)> attr_getstacksize;
  std::atomic<int (*)(pthread_attr_t*, std::size_t)> attr_setstacksize;
  std::atomic<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> create;
};
extern thread_calls g_thread_calls;

/// How often a recursive mutex that is taken is looked at before the caller sleeps for it, some
/// microseconds in all. What is done under one is mostly shorter than going to sleep; and while one
/// thread sleeps for a mutex that another takes again and again, each unlock is a system call that
/// wakes it in vain.
inline constexpr int kLooks = 100;

/// The largest stack that a thread gets by itself.
inline constexpr std::size_t kStackCap = 0x200000;

/// The stack size for threads on a system whose own default is `system_default`.
constexpr std::size_t capped_stack_size(std::size_t system_default) {
  return system_default > kStackCap ? kStackCap : system_default;
}

/// Fills `attributes` for the threads of this library: detached, stack capped. Throws
/// ":Error in 'init_thread'" and leaves nothing to destroy.
void make_thread_attributes(pthread_attr_t& attributes);

/// The attributes that every thread is started with, made at the first call.
const pthread_attr_t& thread_attributes();

}  // namespace muro::detail
