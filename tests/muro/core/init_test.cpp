#include "muro/core/init.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/core/init_internal.h"
#include "muro/core/random_internal.h"
#include "muro/sys/files.h"
#include "muro/sys/files_internal.h"
#include "muro/sys/thread.h"
#include "muro/sys/thread_internal.h"
#include "muro/sys/time.h"
#include "muro/sys/time_internal.h"
#include "muro/sys/xfile.h"
#include "netbuf/netbuf.h"
#include "netbuf/netbuf_imp.h"
#include "tests/muro/core/own_process.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// Every test starts the runtime in a process of its own.
class init_test : public test::own_process_test {};

std::string text_of_failed_start(muro_api_t* api) {
  try {
    muro::init start(api);
  } catch (const muro::exception& e) {
    return e.what();
  }
  return "no failure";
}

// A host's functions. Those that the start or a log line calls are real.
long long host_milliseconds() {
  return 1709208000000;
}
void host_lock() {}
std::vector<std::string>& host_lines() {
  static auto* const lines = new std::vector<std::string>;
  return *lines;
}
void host_line(const char* text, std::size_t length) {
  host_lines().emplace_back(text, length);
}
std::int32_t host_startup_errors = 17;

struct slot {
  int version;
  const void* hook;  // the variable that the pointer is stored in
};

const std::map<std::size_t, slot>& slots() {
  using namespace muro;
  static const auto* const table = new std::map<std::size_t, slot>{
      {4, {0, &muro_lock}},
      {12, {0, &muro_unlock}},
      {36, {0, &x_relative_time}},
      {44, {0, &x_absolute_time}},
      {52, {0, &x_schedule_task}},
      {60, {0, &x_cancel_task}},
      {68, {0, &x_make_socket}},
      {76, {0, &x_make_forbidden_socket}},
      {84, {0, &x_remove_forbidden_socket}},
      {92, {0, &x_drop_dead}},
      {100, {0, &x_rand}},
      {108, {0, &thread_startup_error}},
      {116, {1, &x_enable_debug_dump}},
      {132, {4, &x_make_socket2}},
      {140, {4, &x_make_forbidden_socket2}},
      {148, {5, &x_make_socket3}},
      {156, {6, &x_final_crash_function}},
      {164, {7, &x_schedule_task_executor}},
      {172, {8, &x_schedule_task2}},
      {180, {8, &x_schedule_task_executor2}},
      {188, {9, &x_tztime_2_time_t}},
      {196, {9, &x_time_t_2_tztime}},
      {204, {10, &x_muro_lock_forbidden}},
      {212, {15, &x_absolute_system_time}},
      {220, {16, &init::log_filter_}},
      {236, {20, &x_scheduler_pool}},
      {244, {21, &x_errlog_wait_for_flush}},
      {252, {22, &x_errlog_log_line_direct}},
  };
  return *table;
}

const void* stored(std::size_t offset) {
  const void* value;
  std::memcpy(&value, slots().at(offset).hook, sizeof value);
  return value;
}

/// A host's table that ends with the last slot of its version, right in front of memory that must
/// not be touched, at whatever odd address that gives. Every slot holds a value of its own.
class host_table {
 public:
  explicit host_table(std::int32_t version) {
    std::size_t size = 4;
    for (const auto& [offset, slot] : slots()) {
      if (slot.version <= version) size = offset + 8;
    }
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const memory =
        ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    ::mprotect(static_cast<char*>(memory) + page, page, PROT_NONE);
    bytes_ = static_cast<char*>(memory) + page - size;
    size_ = size;
    std::memcpy(bytes_, &version, sizeof version);
    for (std::size_t offset = 4; offset + 8 <= size; offset += 8) put(offset, marked(offset));
    put(28, nullptr);
    put(4, function(host_lock));
    put(12, function(host_lock));
    put(36, function(host_milliseconds));
    put(44, function(host_milliseconds));
    put(108, &host_startup_errors);
    put(212, function(host_milliseconds));
    put(220, function(host_line));
    put(244, nullptr);
    put(252, nullptr);
  }

  template <class R, class... A>
  static void* function(R (*pointer)(A...)) {
    return reinterpret_cast<void*>(pointer);
  }

  /// Ignored for slots that this version has not got.
  host_table& put(std::size_t offset, void* value) {
    if (offset + 8 <= size_) std::memcpy(bytes_ + offset, &value, sizeof value);
    return *this;
  }

  const void* at(std::size_t offset) const {
    void* value;
    std::memcpy(&value, bytes_ + offset, sizeof value);
    return value;
  }

  muro_api_t* api() { return reinterpret_cast<muro_api_t*>(bytes_); }

 private:
  static void* marked(std::size_t offset) { return reinterpret_cast<void*>(0x100000 + offset); }

  char* bytes_;
  std::size_t size_;
};

/// Holds every slot against the version, but for the log hooks of versions 16 to 21.
void check_slots(const host_table& table, std::int32_t version) {
  for (const auto& [offset, slot] : slots()) {
    if (offset == 252) continue;
    const bool taken = slot.version <= version;
    const bool as_expected = stored(offset) == (taken ? table.at(offset) : nullptr);
    test::check(as_expected, "slot " + std::to_string(offset) + (taken ? " is taken" : " is left"));
  }
}

void refuse(std::int32_t version) {
  host_table table(version);
  CHECK_THAT(text_of_failed_start(table.api()) == "muro-rpt api missing");
  check_slots(table, version);
  CHECK_THAT(muro::x_errlog_log_line_direct == nullptr);
  CHECK_THAT(muro::log_filter == nullptr);
  CHECK_THAT(muro::init::m_started);
  CHECK_THAT(text_of_failed_start(nullptr) == "muro-rpt already initialized");
}

void accept(std::int32_t version) {
  host_table table(version);
  muro::init start(table.api());
  check_slots(table, version);
  CHECK_THAT(muro::log_filter == &muro::init::log_filter);
  const bool wrapped = muro::x_errlog_log_line_direct == &muro::init::compat_errlog_log_line_direct;
  CHECK_THAT(wrapped == (version < 22));
  const bool kept = muro::init::compat_errlog_log_line_direct_ == &host_line;
  CHECK_THAT(kept == (version < 22));
}

class refused_version : public init_test, public testing::WithParamInterface<int> {};

TEST_P(refused_version, keeps_its_slots_and_fails) {
  EXPECT_IN_OWN_PROCESS(refuse(GetParam()),
                        HasSubstr("muro::init: invalid api provided (want=16, got=" +
                                  std::to_string(GetParam()) + ")\n"));
}

INSTANTIATE_TEST_SUITE_P(init_test, refused_version,
                         testing::Values(-2147483647 - 1, -1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11,
                                         14, 15));

class accepted_version : public init_test, public testing::WithParamInterface<int> {};

TEST_P(accepted_version, takes_its_slots_and_starts) {
  EXPECT_IN_OWN_PROCESS(accept(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(init_test, accepted_version,
                         testing::Values(16, 17, 19, 20, 21, 22, 23, 2147483647));

// The order of the start.

std::vector<std::string>& steps() {
  static auto* const names = new std::vector<std::string>;
  return *names;
}

void record_step(const char* name) {
  steps().push_back(name);
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += word + " ";
  return text;
}

const std::string common_steps =
    "init_unixtime foreign_thread init_murolock netbuf task_lock init_rand rwlock_init init_timer "
    "init_errlog xfile::init init_thread init_util_fs ";

void start_and_record(muro_api_t* api) {
  muro::detail::g_before_start_step = record_step;
  muro::init start(api);
}

TEST_F(init_test, steps_run_in_their_order) {
  const auto story = [] {
    start_and_record(nullptr);
    test::check(
        joined(steps()) == common_steps + "disable_sigpipe disable_sigchild ip_address::init ",
        joined(steps()));
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, host_keeps_its_signals) {
  const auto story = [] {
    start_and_record(host_table(22).api());
    test::check(joined(steps()) == common_steps + "ip_address::init ", joined(steps()));
    struct sigaction action;
    ::sigaction(SIGPIPE, nullptr, &action);
    CHECK_THAT(action.sa_handler == SIG_DFL);
    ::sigaction(SIGCHLD, nullptr, &action);
    CHECK_THAT(action.sa_handler == SIG_DFL);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

// Each step has run, not just been announced.

TEST_F(init_test, starts_everything_without_a_host) {
  const auto story = [] {
    CHECK_THAT(!muro::init::m_started);
    muro::init start;
    CHECK_THAT(muro::init::m_started);
    CHECK_THAT(muro::g_global_mutex != nullptr);
    CHECK_THAT(muro::muro_lock != nullptr && muro::muro_unlock != nullptr);
    CHECK_THAT(netbuf_imp::installed_operations().create == netbuf_impl.create);
    CHECK_THAT(netbuf_imp::cache_of_class(0) != nullptr);
    CHECK_THAT(!netbuf_imp::netbuf_memchecker);
    CHECK_THAT(muro::detail::g_generator != nullptr);
    CHECK_THAT(muro::xfile::crc_table()[1] == 0x04C11DB7);
    CHECK_THAT(muro::m_threads_mtx != nullptr);
    CHECK_THAT(muro::thread_startup_error != nullptr && *muro::thread_startup_error == 0);
    CHECK_THAT(muro::detail::g_util_fs_set != nullptr);
    netbuf buffer;
    buffer.append("bytes");
    CHECK_THAT(buffer.to_string() == "bytes");
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, switches_the_signals_off_without_a_host) {
  const auto story = [] {
    muro::init start(nullptr);
    struct sigaction action;
    ::sigaction(SIGPIPE, nullptr, &action);
    CHECK_THAT(action.sa_handler == SIG_IGN);
    ::sigaction(SIGCHLD, nullptr, &action);
    CHECK_THAT(action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, seeds_the_calling_thread) {
  const auto story = [] {
    static int seedings = 0;
    muro::detail::g_seed_calls.srandom = [](unsigned) { ++seedings; };
    muro::init start;
    CHECK_THAT(seedings == 1);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, reads_the_time_zone) {
  const auto story = [] {
    ::setenv("TZ", "XYZ-3", 1);
    muro::init start;
    CHECK_THAT(std::string(::tzname[0]) == "XYZ");
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, starts_the_clock) {
  const auto story = [] {
    static int readings = 0;
    muro::detail::g_tick_source = []() -> clock_t { return ++readings; };
    muro::init start;
    CHECK_THAT(readings == 1);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, makes_the_task_lock) {
  const auto story = [] {
    static int mutexes = 0;
    muro::detail::g_thread_calls.mutex_init = [](pthread_mutex_t* mutex,
                                                 const pthread_mutexattr_t* attribute) {
      ++mutexes;
      return ::pthread_mutex_init(mutex, attribute);
    };
    muro::detail::g_before_start_step = [](const char* name) {
      if (std::strcmp(name, "task_lock") == 0) mutexes = 0;
      if (std::strcmp(name, "init_rand") == 0) CHECK_THAT(mutexes == 1);
    };
    muro::init start;
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, second_start_is_refused) {
  const auto story = [] {
    muro::init first;
    CHECK_THAT(text_of_failed_start(nullptr) == "muro-rpt already initialized");
    CHECK_THAT(text_of_failed_start(host_table(22).api()) == "muro-rpt already initialized");
    CHECK_THAT(muro::x_relative_time == nullptr);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, failing_step_reaches_the_caller_and_is_not_tried_again) {
  const auto story = [] {
    muro::detail::g_before_start_step = [](const char* name) {
      record_step(name);
      if (std::strcmp(name, "init_rand") == 0) throw muro::exception("no dice");
    };
    CHECK_THAT(text_of_failed_start(nullptr) == "no dice");
    CHECK_THAT(steps().back() == "init_rand");
    CHECK_THAT(muro::init::m_started);
    CHECK_THAT(text_of_failed_start(nullptr) == "muro-rpt already initialized");
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

// What a host takes over.

void* host_entry(void* table_of_pointers, int index) {
  return static_cast<void**>(table_of_pointers)[index];
}

TEST_F(init_test, host_brings_its_own_buffers) {
  const auto story = [] {
    static netbuf_imp::operations host_operations = netbuf_impl;
    static int made = 0;
    host_operations.create = [] {
      ++made;
      return netbuf_impl.create();
    };
    host_operations.init = [](bool, bool) { CHECK_THAT(false && "a host's table is initialised"); };
    muro::init start(host_table(16).put(28, static_cast<void**>(host_operations)).api());
    netbuf buffer;
    CHECK_THAT(made == 1);
    CHECK_THAT(host_entry(static_cast<void**>(host_operations), 2) != nullptr);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, host_without_buffers_gets_the_built_in_ones) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    CHECK_THAT(netbuf_imp::installed_operations().create == netbuf_impl.create);
    CHECK_THAT(netbuf_imp::cache_of_class(0) != nullptr);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, host_keeps_its_lock_and_its_counter) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    CHECK_THAT(muro::g_global_mutex == nullptr);
    CHECK_THAT(muro::muro_lock == &host_lock && muro::muro_unlock == &host_lock);
    CHECK_THAT(muro::thread_startup_error == &host_startup_errors && host_startup_errors == 17);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, host_with_nulls_gets_the_built_in_services) {
  const auto story = [] {
    host_table table(22);
    for (std::size_t offset = 4; offset <= 252; offset += 8) table.put(offset, nullptr);
    muro::init start(table.api());
    CHECK_THAT(muro::g_global_mutex != nullptr);
    CHECK_THAT(muro::thread_startup_error != nullptr);
    muro::fmt_dbg("main").fmt_verbose("still logged");
  };
  EXPECT_IN_OWN_PROCESS(story(), HasSubstr("main: still logged\n"));
}

TEST_F(init_test, host_clock_is_used) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    CHECK_THAT(muro::absolute_time() == 1709208000000);
    CHECK_THAT(muro::errlog::current_timestamp() == "2024-02-29T12:00:00Z");
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, host_alone_gets_the_log_lines) {
  const auto story = [] {
    const test::temp_dir dir;
    muro::errlog::set_log_file(dir / "log");
    muro::init start(host_table(16).api());
    muro::fmt_dbg("main").fmt_verbose("for the host: %1%", 1);
    muro::errlog::wait_for_flush();
    CHECK_THAT(host_lines() == std::vector<std::string>{"main: for the host: 1"});
    CHECK_THAT(!muro::file_exists(dir / "log"));
  };
  EXPECT_IN_OWN_PROCESS(story(), testing::Not(HasSubstr("for the host: 1")));
}

std::vector<const char*> released;

void raw_line(const std::string& line, std::size_t prefix_length) {
  muro::errlog::log_line_direct(line.data(), line.size(), prefix_length,
                                [](const char* data) { released.push_back(data); });
}

TEST_F(init_test, older_host_gets_finished_lines_as_messages) {
  const auto story = [] {
    muro::init start(host_table(21).api());
    const std::string with_prefix = "12:00 message\r\n\n", no_message = "12:00 ", only = "x\n";
    raw_line(with_prefix, 5);
    raw_line(no_message, 5);
    raw_line(only, 1);
    raw_line(only, 100);
    CHECK_THAT((host_lines() == std::vector<std::string>{"message", "12:00 ", "x", "x"}));
    CHECK_THAT((released == std::vector<const char*>{with_prefix.data(), no_message.data(),
                                                     only.data(), only.data()}));
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, older_host_that_throws_still_gives_the_line_back) {
  const auto story = [] {
    const auto thrower = [](const char*, std::size_t) { throw muro::exception("host"); };
    host_table table(16);
    table.put(220, host_table::function(+thrower));
    muro::init start(table.api());
    raw_line("12:00 message\n", 5);
    CHECK_THAT(released.size() == 1);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, finished_lines_need_no_release_function) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    muro::errlog::log_line_direct("- m", 3, 1, nullptr);
    CHECK_THAT(host_lines() == std::vector<std::string>{"m"});
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, older_host_without_a_line_function_leaves_the_log_as_it_is) {
  const auto story = [] {
    muro::init start(host_table(16).put(220, nullptr).api());
    static const std::string finished = "12:00 finished\n";
    raw_line(finished, 5);
    muro::fmt_dbg("main").fmt_verbose("usual");
  };
  EXPECT_IN_OWN_PROCESS(story(), testing::ContainsRegex("12:00 finished\n.*main: usual\n"));
}

TEST_F(init_test, newer_host_gets_finished_lines_itself) {
  const auto story = [] {
    static std::vector<std::string> calls;
    const auto direct = [](const char* data, std::size_t length, std::size_t prefix_length,
                           void (*release)(const char*)) {
      calls.push_back(std::string(data, length) + std::to_string(prefix_length));
      release(data);
    };
    host_table table(22);
    table.put(252, host_table::function(+direct));
    muro::init start(table.api());
    raw_line("12:00 m\n", 5);
    CHECK_THAT(calls == std::vector<std::string>{"12:00 m\n5"});
    CHECK_THAT(released.size() == 1);
    CHECK_THAT(host_lines().empty());
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_test, host_waits_for_its_own_flush) {
  const auto story = [] {
    static int flushes = 0;
    host_table table(21);
    table.put(244, host_table::function(+[] { ++flushes; }));
    muro::init start(table.api());
    muro::errlog::wait_for_flush();
    CHECK_THAT(flushes == 1);
    muro::x_errlog_wait_for_flush = nullptr;
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST(init_counters, are_zero) {
  using namespace muro;
  EXPECT_THAT((std::vector<int>{g_netmt_transport_counter, g_netmt_sink_counter,
                                g_netmt_accept_connection_counter, g_fut_queue_counter,
                                g_ptask_counter, g_pnetstream_counter, g_pnetmtstream_counter,
                                g_psemaphore_counter, g_pevent_counter}),
              ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST(init_steps, without_work_may_be_called) {
  muro::rwlock_init();
  muro::ip_address::init();
  muro::init_errlog();
}

}  // namespace
