#pragma once

/// The one exception type of the runtime, and the system's error texts.
///
/// An exception has a text, given at construction, and a stream to which whoever handles it before
/// it is thrown may write more. The stream is folded into the text when the description is first
/// read. Two shapes of text are made by factories:
///
///     :Error in 'NAME'                                            a function failed
///     :Error from 'CALL' (called in 'CALLER'): 2, No such file    a system call failed
///
/// Everything here leaves errno as it found it, destructors included, so that a catch handler can
/// still print the system's text after unwinding.

#include <exception>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

namespace muro {

/// Thrown by value, caught by reference. Reading the description changes the object, so threads
/// that share one (through `std::exception_ptr`) must take turns. Construction and the factories
/// throw only `std::bad_alloc`.
class exception : public std::exception {
 public:
  /// Deliberate: the text is ":", and that colon stays in front of all that the factories write.
  exception();
  explicit exception(const char* message);
  explicit exception(std::string message);
  /// Takes over the other's whole description (which folds the other's stream into its text); the
  /// copy has no stream of its own.
  exception(const exception& other);
  exception& operator=(const exception& other);
  ~exception() override;

  /// `description()`, zero-terminated; valid until the object changes. A failure while folding
  /// (out of memory) ends the process.
  const char* what() const noexcept override;

  /// The text and all that was written to the stream so far. Reading twice gives the same text.
  const std::string& description() const;

  /// The stream for more detail, made on first use; what is written shows at the end of the
  /// description. The reference is good until the description is read.
  std::ostream& stream();

  /// ":Error in 'NAME'".
  static exception function(const char* name);

  /// ":Error from 'CALL' (called in 'CALLER'): ERRNO, TEXT", without " (called in 'CALLER'" when
  /// `caller` is null or empty. errno is read before anything else is done.
  static exception system_error(const char* caller, const char* call);

  /// The same with "[CONTEXT] " in front of the number. The caller passes a string that exists
  /// already: making one at the call could change errno.
  static exception system_error_context(const char* caller, const char* call,
                                        const std::string& context);

  /// "[CONTEXT] ERRNO, TEXT"; without the bracket and its blank when `context` is null.
  static std::string system_error_exception_string(const std::string* context);

 private:
  static exception from_system(const char* caller, const char* call, const std::string& error);

  mutable std::string text_;
  mutable std::unique_ptr<std::ostringstream> extra_;
};

/// The system's text for `errnum` as strerror(3) gives it, safe in threads; empty when the system
/// has none.
std::string safe_strerror(int errnum);

/// `safe_strerror(errno)`.
std::string system_error_string();

}  // namespace muro
