#pragma once

/// Private to osx/launchd_exec: how long one exchange with a user's launchd may take.

namespace osx_priv {

/// Milliseconds from the connection to the end of the reply, all receives together. A launchd that
/// is well answers within a few of them, also at a login, when a hundred jobs start; one that hangs,
/// or a user's program in its place, must not keep the helper from its other clients. Three
/// exchanges make a submission, so one user costs half a minute at most, as one client does.
inline constexpr long long kExchangeLimit_ms = 10000;

/// The limit in force; constant-initialised. Tests alone write it.
extern constinit long long exchange_limit_ms;

}  // namespace osx_priv
