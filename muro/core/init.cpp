#include "muro/core/init.h"

#include <cstring>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/core/init_internal.h"
#include "muro/core/log_dumper.h"
#include "muro/core/log_text.h"
#include "muro/core/random.h"
#include "muro/sys/files.h"
#include "muro/sys/thread.h"
#include "muro/sys/time.h"
#include "muro/sys/xfile.h"
#include "netbuf/netbuf.h"
#include "netbuf/netbuf_imp.h"

namespace muro {

constinit bool init::m_started = false;
constinit init::line_function init::log_filter_ = nullptr;
constinit init::line_function init::compat_errlog_log_line_direct_ = nullptr;

constinit std::int32_t g_netmt_transport_counter = 0;
constinit std::int32_t g_netmt_sink_counter = 0;
constinit std::int32_t g_netmt_accept_connection_counter = 0;
constinit std::int32_t g_fut_queue_counter = 0;
constinit std::int32_t g_ptask_counter = 0;
constinit std::int32_t g_pnetstream_counter = 0;
constinit std::int32_t g_pnetmtstream_counter = 0;
constinit std::int32_t g_psemaphore_counter = 0;
constinit std::int32_t g_pevent_counter = 0;

namespace detail {

constinit start_observer g_before_start_step = nullptr;

}  // namespace detail

namespace {

constexpr std::int32_t kLowestVersion = 16;
constexpr std::int32_t kOwnDirectLineVersion = 22;
constexpr std::size_t kNetbufOffset = 28;

static_assert(sizeof(void*) == 8, "the record keeps pointers of 8 bytes");

/// Where a pointer of the host's table goes. `hook` is the address of a pointer variable.
struct slot {
  std::size_t offset;
  std::int32_t from_version;
  void* hook;
};

constinit const slot kSlots[] = {
    {4, 0, &muro_lock},
    {12, 0, &muro_unlock},
    {36, 0, &x_relative_time},
    {44, 0, &x_absolute_time},
    {52, 0, &x_schedule_task},
    {60, 0, &x_cancel_task},
    {68, 0, &x_make_socket},
    {76, 0, &x_make_forbidden_socket},
    {84, 0, &x_remove_forbidden_socket},
    {92, 0, &x_drop_dead},
    {100, 0, &x_rand},
    {108, 0, &thread_startup_error},
    {116, 1, &x_enable_debug_dump},
    {132, 4, &x_make_socket2},
    {140, 4, &x_make_forbidden_socket2},
    {148, 5, &x_make_socket3},
    {156, 6, &x_final_crash_function},
    {164, 7, &x_schedule_task_executor},
    {172, 8, &x_schedule_task2},
    {180, 8, &x_schedule_task_executor2},
    {188, 9, &x_tztime_2_time_t},
    {196, 9, &x_time_t_2_tztime},
    {204, 10, &x_muro_lock_forbidden},
    {212, 15, &x_absolute_system_time},
    {220, 16, &init::log_filter_},
    {236, 20, &x_scheduler_pool},
    {244, 21, &x_errlog_wait_for_flush},
    {252, kOwnDirectLineVersion, &x_errlog_log_line_direct},
};

/// Nothing in the record is aligned, so everything is copied out of it.
template <class T>
void read_at(const muro_api_t* api, std::size_t offset, T* value) {
  std::memcpy(value, reinterpret_cast<const unsigned char*>(api) + offset, sizeof *value);
}

void store_slots(const muro_api_t* api, std::int32_t version) {
  void** netbuf_table;
  read_at(api, kNetbufOffset, &netbuf_table);
  netbuf::install(netbuf_table);
  for (const slot& s : kSlots) {
    if (version < s.from_version) continue;
    std::memcpy(s.hook, reinterpret_cast<const unsigned char*>(api) + s.offset, sizeof(void*));
  }
}

/// Log lines go to the host alone, the finished ones of other programs' making too.
void route_log(std::int32_t version) {
  errlog::set_log_filter(init::log_filter);
  if (version >= kOwnDirectLineVersion) return;
  init::compat_errlog_log_line_direct_ = init::log_filter_;
  x_errlog_log_line_direct = init::compat_errlog_log_line_direct;
}

void take_over(const muro_api_t* api) {
  std::int32_t version;
  read_at(api, 0, &version);
  // Deliberate: what a refused table has stays stored.
  if (version >= 0) store_slots(api, version);
  if (version >= kLowestVersion) return route_log(version);
  const fmt_dbg log("muro::init");
  log.fmt_verbose("invalid api provided (want=16, got=%1%)", version);
  throw exception("muro-rpt api missing");
}

struct step {
  const char* name;
  void (*run)();
};

constexpr step kSteps[] = {
    {"init_unixtime", init_unixtime},
    {"foreign_thread", [] { foreign_thread(true); }},
    {"init_murolock", init_murolock},
    {"netbuf", [] { netbuf_imp::install_builtin(); }},  // unless the host's table is installed
    {"task_lock", [] { task_lock(); }},
    {"init_rand", init_rand},
    {"rwlock_init", rwlock_init},
    {"init_timer", init_timer},
    {"init_errlog", init_errlog},
    {"xfile::init", xfile::init},
    {"init_thread", init_thread},
    {"init_util_fs", init_util_fs},
};

/// A host decides about its signals itself.
constexpr step kStepsWithoutHost[] = {
    {"disable_sigpipe", disable_sigpipe},
    {"disable_sigchild", disable_sigchild},
};

constexpr step kLastStep{"ip_address::init", ip_address::init};

void run(const step& s) {
  if (detail::g_before_start_step != nullptr) detail::g_before_start_step(s.name);
  s.run();
}

}  // namespace

init::init(muro_api_t* api) {
  if (m_started) throw exception("muro-rpt already initialized");
  // Deliberate: set at once. A failed start is not tried again.
  m_started = true;
  if (api != nullptr) take_over(api);
  for (const step& s : kSteps) run(s);
  if (api == nullptr) {
    for (const step& s : kStepsWithoutHost) run(s);
  }
  run(kLastStep);
}

int init::log_filter(const char* text, std::size_t length) {
  if (log_filter_ == nullptr) return 1;
  log_filter_(text, length);
  return 0;
}

void init::compat_errlog_log_line_direct(const char* data, std::size_t length,
                                         std::size_t prefix_length, void (*release)(const char*)) {
  const raw_log_line line{data, length, prefix_length, release};
  if (compat_errlog_log_line_direct_ == nullptr) return log_dumper::push(line);
  const std::string_view message = log_text::without_line_end(line.message());
  try {
    compat_errlog_log_line_direct_(message.data(), message.size());
  } catch (...) {
    // The buffer goes back to its producer whatever the host made of the line.
  }
  if (release != nullptr) release(data);
}

void rwlock_init() {}

void ip_address::init() {}

}  // namespace muro
