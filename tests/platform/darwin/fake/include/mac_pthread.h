#pragma once

/// What macOS's <pthread.h> has beyond Linux's, as far as the seam uses it. Included first in every
/// source of the macOS side that is compiled on Linux.

#include <pthread.h>

extern "C" unsigned int pthread_mach_thread_np(pthread_t thread);
