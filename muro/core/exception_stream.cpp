#include <locale>

#include "muro/core/exception.h"

namespace muro {

// In a file of its own: a program that never calls it is linked without the C++ library's locales,
// which are half of the helper and would be relocated and written to at every start.
std::ostream& exception::stream() {
  if (extra_ == nullptr) {
    extra_ = std::make_unique<std::ostringstream>();
    extra_->imbue(std::locale::classic());
  }
  return *extra_;
}

}  // namespace muro
