#pragma once

/// Starting the runtime.
///
/// A program constructs one `muro::init` on its main thread before it starts any thread; the object
/// carries no state and there is no shutdown. A host that embeds the runtime hands over a table of
/// functions through which it takes over locking, clocks, tasks, sockets, random numbers, byte
/// buffers and logging; a program of its own passes none.
///
/// The host's table is a packed record, without alignment: a signed 32-bit version at offset 0,
/// then pointers of 8 bytes at offsets 4 + 8k. A pointer is read only when the version is at least
/// the one given here, so a table of an old version may end early. Null means that the runtime
/// uses its own implementation. Versions below 16 are refused.
///
///     offset  from  stored in (muro/core/hooks.h, unless said otherwise)
///        4     0    muro_lock
///       12     0    muro_unlock
///       20     -    reserved, never read
///       28     0    the operation table of `netbuf` (netbuf/operations.h)
///       36     0    x_relative_time
///       44     0    x_absolute_time
///       52     0    x_schedule_task
///       60     0    x_cancel_task
///       68     0    x_make_socket
///       76     0    x_make_forbidden_socket
///       84     0    x_remove_forbidden_socket
///       92     0    x_drop_dead
///      100     0    x_rand
///      108     0    thread_startup_error
///      116     1    x_enable_debug_dump
///      124     -    reserved, never read
///      132     4    x_make_socket2
///      140     4    x_make_forbidden_socket2
///      148     5    x_make_socket3
///      156     6    x_final_crash_function
///      164     7    x_schedule_task_executor
///      172     8    x_schedule_task2
///      180     8    x_schedule_task_executor2
///      188     9    x_tztime_2_time_t
///      196     9    x_time_t_2_tztime
///      204    10    x_muro_lock_forbidden
///      212    15    x_absolute_system_time
///      220    16    init::log_filter_: takes every log line; signature void(const char*, size_t)
///      228     -    reserved, never read
///      236    20    x_scheduler_pool
///      244    21    x_errlog_wait_for_flush
///      252    22    x_errlog_log_line_direct

#include <cstddef>
#include <cstdint>

/// A host's table as described above; never defined, only read byte by byte.
struct muro_api_t;

namespace muro {

class init {
 public:
  /// A host's function that takes a log line.
  using line_function = void (*)(const char* text, std::size_t length);

  /// Takes the table over (`api`, null for none; read only here) and runs the start-up steps.
  /// Without a table it also turns SIGPIPE and SIGCHLD off. Throws `muro::exception` "muro-rpt
  /// already initialized" when a start was tried before, even a failed one; "muro-rpt api missing",
  /// after a log line, for a table of a version below 16, whose slots stay stored; and whatever a
  /// step throws.
  explicit init(muro_api_t* api = nullptr);

  /// Whether a start was tried. A plain flag: starting is the main thread's business.
  static bool m_started;

  /// The log filter for tables from version 16 on: hands the line to `log_filter_` and returns 0,
  /// so that the runtime's own log drops it. Without a `log_filter_` it returns 1.
  static int log_filter(const char* text, std::size_t length);
  static line_function log_filter_;

  /// `x_errlog_log_line_direct` for tables of versions 16 to 21, which have none: hands the message
  /// of the line, without its prefix, separator and line end, to `compat_errlog_log_line_direct_`
  /// and calls `release` (if any). Without that function the line goes on the runtime's own queue.
  static void compat_errlog_log_line_direct(const char* data, std::size_t length,
                                            std::size_t prefix_length,
                                            void (*release)(const char*));
  static line_function compat_errlog_log_line_direct_;
};

// Steps of the start. Deliberate: they have nothing to do.
void rwlock_init();
struct ip_address {
  static void init();
};

// Counters of objects, 0 from the load of the program on. Nothing in this system counts with them;
// they are kept for hosts.
extern std::int32_t g_netmt_transport_counter;
extern std::int32_t g_netmt_sink_counter;
extern std::int32_t g_netmt_accept_connection_counter;
extern std::int32_t g_fut_queue_counter;
extern std::int32_t g_ptask_counter;
extern std::int32_t g_pnetstream_counter;
extern std::int32_t g_pnetmtstream_counter;
extern std::int32_t g_psemaphore_counter;
extern std::int32_t g_pevent_counter;

}  // namespace muro
