#pragma once

/// The one exception type of the runtime.

#include <exception>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

namespace muro {

/// A text plus a stream for more detail, folded into the text when the description is first read.
class exception : public std::exception {
 public:
  /// Deliberate: the text is ":", and that colon stays in front of all that the factories write.
  exception();
  explicit exception(const char* message);
  exception(const exception& other);
  exception& operator=(const exception& other);
  ~exception() override;

  const char* what() const noexcept override;
  const std::string& description() const;
  std::ostream& stream();

  /// ":Error in 'NAME'".
  static exception function(const char* name);
  /// ":Error from 'CALL' (called in 'CALLER'): ERRNO, TEXT"; errno is read before anything else.
  static exception system_error(const char* caller, const char* call);
  /// The same with "[CONTEXT] " in front of the number.
  static exception system_error_context(const char* caller, const char* call,
                                        const std::string& context);
  static std::string system_error_exception_string(const std::string* context);

 private:
  mutable std::string text_;
  mutable std::unique_ptr<std::ostringstream> extra_;
};

/// The system's text for `errnum`; empty when it has none.
std::string safe_strerror(int errnum);
/// `safe_strerror(errno)`.
std::string system_error_string();

}  // namespace muro
