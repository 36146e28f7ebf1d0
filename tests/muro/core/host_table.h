#pragma once

/// A host's table for `muro::init`, as the byte record that it is, with functions to put into it.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "muro/core/hooks.h"
#include "muro/core/init.h"

namespace test {

// A host's functions. Those that the start or a log line calls are real.
inline long long host_milliseconds() {
  return 1709208000000;
}
inline void host_lock() {}
inline std::vector<std::string>& host_lines() {
  static auto* const lines = new std::vector<std::string>;
  return *lines;
}
inline void host_line(const char* text, std::size_t length) {
  host_lines().emplace_back(text, length);
}
inline std::int32_t host_startup_errors = 17;

struct slot {
  int version;
  const void* hook;  // the variable that the pointer is stored in
};

inline const std::map<std::size_t, slot>& slots() {
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

inline const void* stored(std::size_t offset) {
  const void* value;
  std::memcpy(&value, slots().at(offset).hook, sizeof value);
  return value;
}

/// A host's table that ends with the last slot of its version, right in front of memory that must
/// not be touched, at whatever odd address that gives. Every slot holds a value of its own. The
/// memory is kept to the end of the process.
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

}  // namespace test
