#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/core/init.h"
#include "muro/sys/files.h"
#include "muro/sys/thread.h"
#include "muro/sys/time.h"
#include "netbuf/netbuf.h"
#include "netbuf/netbuf_imp.h"
#include "tests/muro/core/host_table.h"
#include "tests/muro/core/own_process.h"
#include "tests/support/temp_dir.h"

namespace {

using test::host_lines;
using test::host_lock;
using test::host_startup_errors;
using test::host_table;
using testing::HasSubstr;

/// Every test starts the runtime with a host's table in a process of its own.
class init_host_test : public test::own_process_test {};

void* host_entry(void* table_of_pointers, int index) {
  return static_cast<void**>(table_of_pointers)[index];
}

TEST_F(init_host_test, host_brings_its_own_buffers) {
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

TEST_F(init_host_test, host_without_buffers_gets_the_built_in_ones) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    CHECK_THAT(netbuf_imp::installed_operations().create == netbuf_impl.create);
    CHECK_THAT(netbuf_imp::cache_of_class(0) != nullptr);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_host_test, host_keeps_its_lock_and_its_counter) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    CHECK_THAT(muro::g_global_mutex == nullptr);
    CHECK_THAT(muro::muro_lock == &host_lock && muro::muro_unlock == &host_lock);
    CHECK_THAT(muro::thread_startup_error == &host_startup_errors && host_startup_errors == 17);
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_host_test, host_with_nulls_gets_the_built_in_services) {
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

TEST_F(init_host_test, host_clock_is_used) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    CHECK_THAT(muro::absolute_time() == 1709208000000);
    CHECK_THAT(muro::errlog::current_timestamp() == "2024-02-29T12:00:00Z");
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_host_test, host_alone_gets_the_log_lines) {
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

TEST_F(init_host_test, older_host_gets_finished_lines_as_messages) {
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

TEST_F(init_host_test, older_host_that_throws_still_gives_the_line_back) {
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

TEST_F(init_host_test, finished_lines_need_no_release_function) {
  const auto story = [] {
    muro::init start(host_table(16).api());
    muro::errlog::log_line_direct("- m", 3, 1, nullptr);
    CHECK_THAT(host_lines() == std::vector<std::string>{"m"});
  };
  EXPECT_IN_OWN_PROCESS(story(), "");
}

TEST_F(init_host_test, older_host_without_a_line_function_leaves_the_log_as_it_is) {
  const auto story = [] {
    muro::init start(host_table(16).put(220, nullptr).api());
    static const std::string finished = "12:00 finished\n";
    raw_line(finished, 5);
    muro::fmt_dbg("main").fmt_verbose("usual");
  };
  EXPECT_IN_OWN_PROCESS(story(), testing::ContainsRegex("12:00 finished\n.*main: usual\n"));
}

TEST_F(init_host_test, newer_host_gets_finished_lines_itself) {
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

TEST_F(init_host_test, host_waits_for_its_own_flush) {
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

}  // namespace
