#pragma once

/// The names of this machine's system calls, as the fault table writes them.

#include <cstdint>
#include <string>

namespace faults {

/// The call's name; its number as text where the table has none for it. `second` is its second
/// argument: a futex that is waited on ("futex_wait") can fail in other ways than one that is woken
/// ("futex_wake").
std::string call_name(std::uint64_t number, std::uint64_t second);

/// Whether the call changes what a path names, given its arguments: what must never be done while
/// the process acts as somebody else.
bool changes_files(const std::string& name, const std::uint64_t (&arguments)[6]);

/// Which argument holds the path that the call is about, -1 for none.
int path_argument(const std::string& name);

/// Which argument holds the number of bytes (for sendmsg and recvmsg: the message), -1 for none.
int count_argument(const std::string& name);

/// Whether its first argument is the descriptor of what the call is about.
bool is_about_descriptor(const std::string& name);

/// The error's number ("ENOSPC"); 0 for a name that the table does not have.
int error_number(const std::string& name);

}  // namespace faults
