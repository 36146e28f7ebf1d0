#pragma once

/// Starting the runtime. Construct one `muro::init` on the main thread before any other use; it
/// lives to the end of the process.

struct muro_api_t;

namespace muro {

class init {
 public:
  /// Starts the runtime, or throws `muro::exception`. `api` is a host's table, null for none.
  explicit init(muro_api_t* api = nullptr);
};

}  // namespace muro
