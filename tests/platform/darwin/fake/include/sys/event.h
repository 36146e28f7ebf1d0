#pragma once

/// The part of macOS's <sys/event.h> that the seam uses.

#include <stdint.h>
#include <time.h>

#define EVFILT_PROC (-5)
#define EV_ADD 0x0001
#define NOTE_EXIT 0x80000000

struct kevent {
  uintptr_t ident;
  int16_t filter;
  uint16_t flags;
  uint32_t fflags;
  intptr_t data;
  void* udata;
};

#define EV_SET(event, ident_, filter_, flags_, fflags_, data_, udata_) \
  (*(event) = {(ident_), (filter_), (flags_), (fflags_), (data_), (udata_)})

extern "C" int kqueue(void);
extern "C" int kevent(int queue, const struct kevent* changes, int change_count,
                      struct kevent* events, int event_count, const struct timespec* limit);
