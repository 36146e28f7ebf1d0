#pragma once

/// Which macOS release is running. Nothing is cached: every call asks the system anew. No function
/// here fails or throws anything but `std::bad_alloc`; all may be called from any thread.

#include <cstdint>
#include <optional>
#include <string>

namespace muro {

/// The three numbers of a release, at first those of the oldest one that is known to be possible.
struct os_release {
  int major = 10;
  int minor = 4;
  int bugfix = 0;
};

/// The release that `text` names, or without a text the one that the selectors 'sys1', 'sys2' and
/// 'sys3' tell, each for one number. `older_selector` fills its argument and returns true where it
/// knows the answer.
os_release os_release_of(const std::optional<std::string>& text,
                         bool (*older_selector)(std::uint32_t selector, int& value));

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
