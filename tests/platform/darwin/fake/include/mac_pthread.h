#pragma once

/// What macOS's <pthread.h> has beyond Linux's, as far as the seam uses it. Included first in every
/// source of the macOS side that is compiled on Linux.

#include <pthread.h>

extern "C" unsigned int pthread_mach_thread_np(pthread_t thread);
extern "C" int pthread_cond_timedwait_relative_np(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                                  const struct timespec* wait);
