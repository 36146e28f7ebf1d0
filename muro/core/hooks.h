#pragma once

/// Every process-wide hook through which an embedding host can take over a service of the runtime.
///
/// A hook is a plain function pointer, null by default: null means that the runtime's own
/// implementation is used. Hooks are set before threads start (by `muro::init` from the host's
/// table, or by hand) and only read afterwards; nothing guards them. They are constant-initialised
/// and never destroyed. A hook whose signature is only known to the host is kept as `void*`.

#include <cstddef>
#include <cstdint>

namespace muro {

// Library-wide lock (set by init_murolock unless a host did).
extern void (*muro_lock)();
extern void (*muro_unlock)();
extern void* x_muro_lock_forbidden;

// Clocks: milliseconds, see muro/sys/time.h.
extern long long (*x_relative_time)();
extern long long (*x_absolute_time)();
extern long long (*x_absolute_system_time)();

// The pause of the calling thread in microseconds; null sleeps. See muro::pause_us.
extern void (*x_pause_us)(unsigned long long microseconds);

// Task scheduling and time zones: kept for the host, called by nothing here.
extern void* x_schedule_task;
extern void* x_cancel_task;
extern void* x_schedule_task_executor;
extern void* x_schedule_task2;
extern void* x_schedule_task_executor2;
extern void* x_scheduler_pool;
extern void* x_tztime_2_time_t;
extern void* x_time_t_2_tztime;

// Sockets, see ipc/socket.h.
using socket_function = int (*)(int domain, int type, int protocol);
using close_function = int (*)(int descriptor);
using make_socket_hook = int (*)(int domain, int type, int protocol, socket_function,
                                 close_function);
extern make_socket_hook x_make_socket;
extern make_socket_hook x_make_socket2;
extern make_socket_hook x_make_socket3;
extern void* x_make_forbidden_socket;
extern void* x_remove_forbidden_socket;
extern void* x_make_forbidden_socket2;

// Ends and diagnosis: kept for the host, called by nothing here.
extern void* x_drop_dead;
extern void* x_rand;
extern void* x_enable_debug_dump;
extern void* x_final_crash_function;

// Threads, see muro/sys/thread.h.
extern std::int32_t* thread_startup_error;
extern void (*_unprevent_timeout)();
extern void (*_prevent_cb)();

// Log, see muro/core/errlog.h.
extern void (*x_errlog_wait_for_flush)();
extern void (*x_errlog_log_line_direct)(const char* data, std::size_t length,
                                        std::size_t prefix_length, void (*release)(const char*));

}  // namespace muro
