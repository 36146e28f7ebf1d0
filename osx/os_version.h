#pragma once

/// Which macOS release is running. Nothing is cached: every call asks the system anew. Neither
/// function fails or throws anything but `std::bad_alloc`; both may be called from any thread.

namespace muro {

/// Fills `major` and `minor` and returns the bugfix number, for example 10, 9 and 5. They come from
/// the product version text (`platform::product_version`), split at the points, where a missing
/// piece is 0 and a piece that is no number is 0; without such a text from the older version
/// selectors (`platform::older_version_selector`); where these do not answer either they are 10, 4
/// and 0.
int os_version_osx(int& major, int& minor);

}  // namespace muro

namespace osx {

/// Whether the running release is `major`.`minor` or a later one.
bool is_os_version_or_later(int major, int minor);

}  // namespace osx
