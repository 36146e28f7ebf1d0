#include "muro/core/log_settings.h"

#include <pthread.h>

#include <utility>

namespace muro {

constinit std::atomic<std::int32_t> log_level{0};
constinit std::atomic<std::int32_t> g_run_report_level{0};
constinit std::atomic<int (*)(const char*, std::size_t)> log_filter{nullptr};
constinit std::atomic<void (*)(const char*, std::size_t)> log_line_hook{nullptr};
constinit std::atomic<void (*)(const char*, std::size_t)> log_direct_sink{nullptr};
constinit std::atomic<unsigned long long> log_rotate_size{0};
constinit std::atomic<std::int32_t> log_rotate_count{0};
constinit std::atomic<unsigned long long> log_cut_size{0};
constinit std::atomic<bool> log_to_stderr{true};
constinit std::atomic<bool> log_stderr_timestamps{true};

namespace {

// A plain mutex, because it exists before anything has run. It guards the pointer and its string
// and is held for one copy.
constinit pthread_mutex_t g_name_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit std::string* g_name = nullptr;

class name_lock {
 public:
  name_lock() { ::pthread_mutex_lock(&g_name_mutex); }
  ~name_lock() { ::pthread_mutex_unlock(&g_name_mutex); }
  name_lock(const name_lock&) = delete;
  name_lock& operator=(const name_lock&) = delete;
};

}  // namespace

std::string log_file_name() {
  const name_lock lock;
  return g_name != nullptr ? *g_name : std::string();
}

void set_log_file_name(std::string name) {
  const name_lock lock;
  if (g_name == nullptr) g_name = new std::string;
  g_name->swap(name);
}

}  // namespace muro
