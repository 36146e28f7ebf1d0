#pragma once

/// Clocks in milliseconds and seconds, `timespec` arithmetic, pauses.

#include <time.h>

#include "muro/core/hooks.h"

namespace muro {

class rec_mutex;

extern bool g_has_monotonic;

long long relative_time();
long long relative_time_t();
long long absolute_system_time();
long long absolute_time();
long long absolute_time_t();

void clock_realtime(timespec& ts);
void clock_monotonic(timespec& ts);
void add_ms(timespec& ts, long long ms);
long long get_ns(const timespec& ts);
long long get_ms_from_ns(long long ns);

void init_timer();
void init_unixtime();
rec_mutex* task_lock();

/// Pauses the calling thread for at least that long, signals or not; through `x_pause_us` when
/// that hook is set. Every fixed pause of the program goes through here.
void pause_us(unsigned long long microseconds);

}  // namespace muro
