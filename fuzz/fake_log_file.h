#pragma once

/// The log's one file in memory, and standard error with it: the functions of muro/core/log_open.h,
/// and those calls of the C library that need a real file, are defined by fake_log_file.cpp in the
/// target itself, where the linker finds them before the runtime's and the C library's.

#include <cstddef>
#include <string>

namespace fake {

struct log_disk {
  bool exists = false;
  unsigned long number = 1;  ///< its identity; another file has another
  std::string content;

  std::string refusal;                                        ///< why it must not be opened
  bool cannot_open = false;                                   ///< for no reason of its own
  std::size_t room_for_write = static_cast<std::size_t>(-1);  ///< of the next write to the log

  std::string standard_error;
  bool takes_standard_error = false;  ///< what is written there goes into the text
};

extern log_disk& disk;

/// Puts the function in place that writes to the log.
void start_log_disk();

}  // namespace fake
