#pragma once

/// Looking into another process, one that is stopped and traced.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace faults {

/// False when not all of it could be read.
bool read_memory(pid_t pid, std::uint64_t address, void* to, std::size_t size);
void write_memory(pid_t pid, std::uint64_t address, const void* from, std::size_t size);

/// The terminated text at the address, at most 300 bytes of it; "?" for blanks and for what is no
/// printable ASCII, so that the text is one field of a line.
std::string read_text(pid_t pid, std::uint64_t address);

/// What the descriptor leads to, as a field of a line.
std::string descriptor_target(pid_t pid, int descriptor);

/// The process that a thread belongs to.
pid_t process_of(pid_t thread);

/// The effective user id; -1 when the process has gone.
int effective_user(pid_t pid);

}  // namespace faults
