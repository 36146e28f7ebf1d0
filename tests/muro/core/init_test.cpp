#include "muro/core/init.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cstring>
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
#include "tests/muro/core/host_table.h"
#include "tests/muro/core/own_process.h"

namespace {

using test::host_line;
using test::host_table;
using test::slots;
using test::stored;
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
