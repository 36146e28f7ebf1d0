#pragma once

/// What every role begins with.

/// Opens each of the descriptors 0, 1 and 2 that is closed on the null device. Without it the next
/// file or socket would take that number, and whatever is written to standard error would end up
/// in it. Call before anything that may open a descriptor. A failure is not reported: there is
/// nowhere to.
void open_standard_descriptors();

/// Sets PATH to launchd's default, /usr/bin:/bin:/usr/sbin:/sbin, where programs without a slash in
/// their name are searched for. An installer's shell may have others in it, whose owners would have
/// their programs run as root. Call before other threads exist.
void use_default_path();

/// Starts the runtime and the socket layer and points the log at "korvel_helper.out" beside the
/// executable, rotated at 1 MiB with one old file. Once per process, on the main thread.
/// Throws `muro::exception` when the runtime cannot start or the executable's path is unknown.
void start_runtime();

/// Points the log at the file of that name beside the executable.
void log_beside_executable(const char* name);
