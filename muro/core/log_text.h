#pragma once

/// What the error log does to the text of a line, without any output.

#include <string>
#include <string_view>

namespace muro::log_text {

/// Replaces every byte below 0x20 and every grave accent by a grave accent and the byte's two
/// lower-case hexadecimal digits, so that a line is one line: "a\nb" becomes "a`0ab". Bytes from
/// 0x80 up stay as they are.
void escape(std::string& text);
/// Appends `text`, so replaced, to `out`.
void append_escaped(std::string& out, std::string_view text);

/// A line that a caller has formatted: `prefix_length` bytes of prefix (a timestamp), one
/// separator byte, the message. What follows the separator; all of it when there is nothing.
std::string_view raw_message(std::string_view data, std::size_t prefix_length);

/// `text` without the CR and LF bytes at its end.
std::string_view without_line_end(std::string_view text);

/// UTC time as "%d-%02d-%02dT%02d:%02d:%02dZ"; "N" for a time that has no calendar date.
std::string timestamp(long long seconds_since_epoch);

/// Gives the time of now as text, formatting it once a second. One thread at a time.
class clock {
 public:
  /// "N" when the time cannot be read. Valid until the next call.
  const std::string& now();

 private:
  long long second_ = -1;
  std::string text_ = "N";
};

}  // namespace muro::log_text
