#pragma once

/// The list of the log lines that a traced program has accepted: shared memory, so that keeping it
/// makes no system call. It is the file that FAULTS_ACCEPTED names, a line of it the line's text.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace faults {

inline constexpr std::size_t kAcceptedRoom = 1 << 18;
inline constinit char* accepted = nullptr;
inline constinit std::atomic<std::size_t> accepted_used{0};

/// Before the mark. Without the variable nothing is kept.
inline void open_accepted_list() {
  const char* const path = std::getenv("FAULTS_ACCEPTED");
  if (path == nullptr) return;
  const int file = ::open(path, O_RDWR);
  void* const memory = ::mmap(nullptr, kAcceptedRoom, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  if (memory == MAP_FAILED) std::abort();
  accepted = static_cast<char*>(memory);
}

inline void accept_line(const char* text, std::size_t length) {
  if (accepted == nullptr) return;
  const std::size_t at = accepted_used.fetch_add(length + 1);
  if (at + length + 1 > kAcceptedRoom) return;
  std::memcpy(accepted + at, text, length);
  accepted[at + length] = '\n';
}

}  // namespace faults
