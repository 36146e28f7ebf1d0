#pragma once

/// The part of macOS's <mach-o/dyld.h> that the seam uses.

#include <stdint.h>

extern "C" int _NSGetExecutablePath(char* buf, uint32_t* bufsize);
