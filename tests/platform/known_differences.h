#pragma once

/// The macOS side of the seam runs on Linux against GNUstep's Foundation, which in a few places is
/// known to answer otherwise than the Mac's. The contract is what the Mac says; a test that meets
/// such a place expects the other answer from GNUstep, so that it is seen when the two agree again.

namespace test {

#ifdef KORVEL_GNUSTEP
inline constexpr bool kOnGnustep = true;
#else
inline constexpr bool kOnGnustep = false;
#endif

}  // namespace test
