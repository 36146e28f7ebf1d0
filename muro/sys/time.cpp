#include "muro/sys/time.h"

#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "muro/core/errno_guard.h"
#include "muro/core/exception.h"
#include "muro/sys/thread.h"
#include "muro/sys/time_internal.h"
#include "platform/clock.h"

namespace muro {

bool g_has_monotonic = false;

namespace detail {

namespace {

clock_t system_ticks() {
  tms unused;
  return ::times(&unused);
}

int system_time_of_day(timeval* now) {
  return ::gettimeofday(now, nullptr);
}

constexpr long kUsualTickRate = 100;

}  // namespace

constinit std::atomic<clock_t (*)()> g_tick_source{system_ticks};
constinit std::atomic<int (*)(timeval*)> g_time_of_day{system_time_of_day};
constinit std::atomic<long long (*)() noexcept> g_monotonic_us{platform::monotonic_us};

tick_clock::tick_clock(long ticks_per_second, clock_t first)
    : ticks_per_second_(ticks_per_second > 0 ? ticks_per_second : kUsualTickRate), last_(first) {}

long long tick_clock::advance(clock_t now) {
  constexpr auto kFailed = static_cast<clock_t>(-1);
  if (now == kFailed) return accumulated_ms_;
  if (last_ == kFailed) last_ = now;
  const auto delta = static_cast<long long>(now) - static_cast<long long>(last_);
  last_ = now;
  // Deliberate: the division is made call by call, so what is left below a millisecond is dropped
  // each time instead of being carried to the next call.
  if (delta > 0) accumulated_ms_ += delta * 1000 / ticks_per_second_;
  return accumulated_ms_;
}

}  // namespace detail

namespace {

/// Never destroyed: threads ask for the time until the process has ended. The mutex is recursive,
/// as the absolute clock asks the relative one while it holds it.
struct timer_state {
  rec_mutex mutex;  // guards all below
  detail::tick_clock ticks{::sysconf(_SC_CLK_TCK), detail::g_tick_source.load()()};
  bool use_system_clock = true;
  long long offset_ms = 0;
};

timer_state& timer() {
  static timer_state* const state = new timer_state;
  return *state;
}

}  // namespace

long long relative_time() {
  if (x_relative_time != nullptr) return x_relative_time();
  timer_state& state = timer();
  const rec_lock lock(state.mutex);
  return state.ticks.advance(detail::g_tick_source.load()());
}

long long relative_time_t() {
  return relative_time() / 1000;
}

long long absolute_system_time() {
  if (x_absolute_system_time != nullptr) return x_absolute_system_time();
  // Keeps the tick count current for a process that asks for nothing but the time of day.
  if (!g_has_monotonic) relative_time();
  timespec now;
  clock_realtime(now);
  return get_ms_from_ns(get_ns(now));
}

long long absolute_time() {
  if (x_absolute_time != nullptr) return x_absolute_time();
  timer_state& state = timer();
  const rec_lock lock(state.mutex);
  return state.use_system_clock ? absolute_system_time() : relative_time() + state.offset_ms;
}

long long absolute_time_t() {
  return absolute_time() / 1000;
}

void set_absolute_clock(bool follow_system_clock, long long offset_ms) {
  timer_state& state = timer();
  const rec_lock lock(state.mutex);
  state.use_system_clock = follow_system_clock;
  state.offset_ms = offset_ms;
}

void clock_realtime(timespec& ts) {
  timeval now;
  if (detail::g_time_of_day.load()(&now) != 0) throw exception::function("clock_realtime");
  ts.tv_sec = now.tv_sec;
  ts.tv_nsec = static_cast<long>(now.tv_usec) * 1000;
}

void clock_monotonic(timespec& /*ts*/) {
  throw exception::function("clock_monotonic");
}

void add_ms(timespec& ts, long long ms) {
  constexpr long kSecond = 1000000000;
  // Both divisions round towards zero, so a negative rest is taken off as it is.
  ts.tv_sec += static_cast<time_t>(ms / 1000);
  ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
  if (ts.tv_nsec < kSecond) return;
  ts.tv_sec += ts.tv_nsec / kSecond;
  ts.tv_nsec %= kSecond;
}

long long get_ns(const timespec& ts) {
  return static_cast<long long>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

long long get_ms_from_ns(long long ns) {
  return ns / 1000000;
}

long long wait_clock_us() {
  return x_relative_time != nullptr ? x_relative_time() * 1000 : detail::g_monotonic_us.load()();
}

long long time_limit::left_ms() const {
  if (limit_ms_ <= 0) return 0;
  // Whole milliseconds that have passed are taken off, so what is left is rounded up; compared
  // before anything is added, so no limit is too long to be reckoned with.
  const long long passed_ms = std::max((wait_clock_us() - start_us_) / 1000, 0LL);
  return std::max(limit_ms_ - passed_ms, 0LL);
}

void init_timer() {
  timer();
}

// `g_has_monotonic` stays as it is: `clock_monotonic` would throw here on every system, and to throw
// and catch is a part of the whole start that can be measured.
void init_unixtime() {
  ::tzset();
}

rec_mutex* task_lock() {
  static rec_mutex* const lock = new rec_mutex;
  return lock;
}

void pause_us(unsigned long long microseconds) {
  const errno_guard keep;
  if (x_pause_us != nullptr) {
    x_pause_us(microseconds);
    return;
  }
  const auto monotonic_us = detail::g_monotonic_us.load();
  const long long start_us = monotonic_us();
  // A signal ends the sleep early. What is left then is told by the clock: the system's own answer
  // leaves out the time that the signal's handler took.
  for (unsigned long long passed_us = 0; passed_us < microseconds;) {
    const unsigned long long left_us = microseconds - passed_us;
    timespec left;
    left.tv_sec = static_cast<time_t>(left_us / 1000000);
    left.tv_nsec = static_cast<long>(left_us % 1000000) * 1000;
    if (::nanosleep(&left, nullptr) == 0 || errno != EINTR) return;
    passed_us = static_cast<unsigned long long>(monotonic_us() - start_us);
  }
}

}  // namespace muro
