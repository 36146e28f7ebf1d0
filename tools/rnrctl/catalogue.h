#pragma once

/// What the helper says and what it means: every line it logs, every exception text, the exit
/// statuses of the helper and of this tool, and launchd's numbers, in plain words. The one place
/// where they are explained; a test holds it against every message in the helper's sources.

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rnrctl {

/// One line of the log, as its template stands in the source: "Failed to move file: %1%".
struct log_message {
  const char* component;  ///< the name in front of the line, "" where a host chooses it
  const char* text;       ///< the template; %N% stands for any text
  const char* meaning;    ///< what happened, in plain words
  const char* advice;     ///< what to do about it; "" where there is nothing to do
};

/// A function or system call that an exception's text names: ":Error in 'NAME'".
struct failed_function {
  const char* name;
  const char* meaning;
};

/// A number and who uses it.
struct numbered {
  const char* user;  ///< "korvel_helper ends with", "rnrctl ends with", "launchctl ends with"
  int number;
  const char* meaning;
};

std::span<const log_message> log_messages();
std::span<const failed_function> failed_functions();
std::span<const numbered> numbers();

/// Whether `text` is what the template can have become: %N% stands for any text, also none.
bool matches(std::string_view text_template, std::string_view text);

/// What `asked` means, one paragraph a line without line ends: a line of the log (with or without
/// its time and component), a part of one that is an exception's text, or a number. Empty when the
/// catalogue does not know it.
std::vector<std::string> explain(const std::string& asked);

}  // namespace rnrctl
