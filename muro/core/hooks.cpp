#include "muro/core/hooks.h"

namespace muro {

void (*muro_lock)() = nullptr;
void (*muro_unlock)() = nullptr;
void* x_muro_lock_forbidden = nullptr;

long long (*x_relative_time)() = nullptr;
long long (*x_absolute_time)() = nullptr;
long long (*x_absolute_system_time)() = nullptr;
void (*x_pause_us)(unsigned long long) = nullptr;

void* x_schedule_task = nullptr;
void* x_cancel_task = nullptr;
void* x_schedule_task_executor = nullptr;
void* x_schedule_task2 = nullptr;
void* x_schedule_task_executor2 = nullptr;
void* x_scheduler_pool = nullptr;
void* x_tztime_2_time_t = nullptr;
void* x_time_t_2_tztime = nullptr;

make_socket_hook x_make_socket = nullptr;
make_socket_hook x_make_socket2 = nullptr;
make_socket_hook x_make_socket3 = nullptr;
void* x_make_forbidden_socket = nullptr;
void* x_remove_forbidden_socket = nullptr;
void* x_make_forbidden_socket2 = nullptr;

void* x_drop_dead = nullptr;
void* x_rand = nullptr;
void* x_enable_debug_dump = nullptr;
void* x_final_crash_function = nullptr;

std::int32_t* thread_startup_error = nullptr;
void (*_unprevent_timeout)() = nullptr;
void (*_prevent_cb)() = nullptr;

void (*x_errlog_wait_for_flush)() = nullptr;
void (*x_errlog_log_line_direct)(const char*, std::size_t, std::size_t,
                                 void (*)(const char*)) = nullptr;

}  // namespace muro
