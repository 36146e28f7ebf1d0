#pragma once

/// The inner side of muro/core/init.h, for init.cpp and its tests alone.

namespace muro::detail {

using start_observer = void (*)(const char* name);

/// Called with the name of each start-up step just before it runs; what it throws, the step throws.
/// Null by default.
extern start_observer g_before_start_step;

}  // namespace muro::detail
