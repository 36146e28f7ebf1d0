#include "muro/core/exception.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "muro/core/errno_guard.h"

namespace muro {

namespace {

// strerror_r comes in two shapes: POSIX returns a number and fills the buffer, GNU returns the
// text. The overload of the shape at hand picks it.
[[maybe_unused]] const char* text_from(int, const char* buffer) {
  return buffer;
}
[[maybe_unused]] const char* text_from(const char* text, const char*) {
  return text;
}

}  // namespace

exception::exception() : text_(":") {}

exception::exception(const char* message) : text_(message) {}

exception::exception(std::string message) : text_(std::move(message)) {}

exception::exception(const exception& other) : std::exception(other), text_(other.description()) {}

exception& exception::operator=(const exception& other) {
  std::string text = other.description();
  text_.swap(text);
  extra_.reset();
  return *this;
}

exception::~exception() {
  const errno_guard keep;
  extra_.reset();
  std::string().swap(text_);  // freed while errno is kept
}

const char* exception::what() const noexcept {
  return description().c_str();
}

const std::string& exception::description() const {
  if (extra_ != nullptr) {
    text_ += extra_->str();
    extra_.reset();
  }
  return text_;
}

exception exception::function(const char* name) {
  const errno_guard keep;
  exception result;
  result.text_.append("Error in '").append(name).append("'");
  return result;
}

exception exception::system_error(const char* caller, const char* call) {
  const errno_guard keep;
  return from_system(caller, call, system_error_exception_string(nullptr));
}

exception exception::system_error_context(const char* caller, const char* call,
                                          const std::string& context) {
  const errno_guard keep;
  return from_system(caller, call, system_error_exception_string(&context));
}

exception exception::from_system(const char* caller, const char* call, const std::string& error) {
  const bool has_caller = caller != nullptr && *caller != 0;
  exception result;
  std::string& text = result.text_;
  text.append("Error from '").append(call);
  if (has_caller) text.append("' (called in '").append(caller);
  text.append(has_caller ? "'): " : "': ").append(error);
  return result;
}

std::string exception::system_error_exception_string(const std::string* context) {
  const errno_guard keep;
  std::string text;
  if (context != nullptr) text = "[" + *context + "] ";
  text += std::to_string(keep.value());
  text += ", ";
  text += safe_strerror(keep.value());
  return text;
}

std::string safe_strerror(int errnum) {
  const errno_guard keep;
  char buffer[1024] = "";
  const char* text = text_from(::strerror_r(errnum, buffer, sizeof buffer), buffer);
  return text != nullptr ? text : "";
}

std::string system_error_string() {
  return safe_strerror(errno);
}

}  // namespace muro
