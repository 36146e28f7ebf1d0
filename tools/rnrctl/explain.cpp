#include <CLI/CLI.hpp>
#include <cstdlib>
#include <memory>
#include <regex>
#include <utility>

#include "muro/core/exception.h"
#include "muro/core/fmt.h"
#include "tools/rnrctl/catalogue.h"
#include "tools/rnrctl/commands.h"

namespace rnrctl {
namespace {

// The length of the placeholder that begins at `at`, "%N%"; 0: none does.
std::size_t placeholder_at(std::string_view text, std::size_t at) {
  if (text[at] != '%') return 0;
  const std::size_t end = text.find_first_not_of("0123456789", at + 1);
  return end != std::string_view::npos && end > at + 1 && text[end] == '%' ? end + 1 - at : 0;
}

// The literal text in front of the next placeholder; `text` keeps what follows the two.
std::string_view take_literal(std::string_view& text, bool& ends_in_placeholder) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::size_t length = placeholder_at(text, at);
    if (length == 0) continue;
    const std::string_view literal = text.substr(0, at);
    text.remove_prefix(at + length);
    ends_in_placeholder = true;
    return literal;
  }
  ends_in_placeholder = false;
  return std::exchange(text, {});
}

const char* meaning_of_function(const std::string& name) {
  for (const failed_function& entry : failed_functions())
    if (name == entry.name) return entry.meaning;
  return nullptr;
}

void explain_function(const std::string& name, std::vector<std::string>& out) {
  if (const char* const meaning = meaning_of_function(name))
    out.push_back("\"" + name + "\": " + meaning + ".");
}

// The two shapes of an exception's text (muro/core/exception.h).
void explain_exceptions(const std::string& text, std::vector<std::string>& out) {
  static const std::regex* const in_function = new std::regex(":Error in '([^']*)'");
  static const std::regex* const in_call =
      new std::regex(R"(:Error from '([^']*)' \(called in '([^']*)'\): (?:\[.*\] )?(\d+), )");
  std::smatch found;
  if (std::regex_search(text, found, *in_function)) explain_function(found[1], out);
  if (!std::regex_search(text, found, *in_call)) return;
  explain_function(found[2], out);
  out.push_back("The system's call \"" + found[1].str() +
                "\" failed: " + muro::safe_strerror(std::atoi(found[3].str().c_str())) + ".");
}

void explain_number(int number, std::vector<std::string>& out) {
  for (const numbered& entry : numbers()) {
    if (entry.number != number) continue;
    out.push_back(muro::stringify(entry.user, " ", number, ": ", entry.meaning, "."));
  }
}

bool is_number(const std::string& text) {
  return !text.empty() && text.size() < 10 &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

struct log_line {
  std::string component;  // empty: not told
  std::string text;
};

log_line parse(const std::string& asked) {
  static const std::regex* const time = new std::regex(R"(^\d{4,}-\d\d-\d\dT\d\d:\d\d:\d\dZ )");
  const std::string line = std::regex_replace(asked, *time, "");
  const std::size_t colon = line.find(": ");
  for (const log_message& message : log_messages())
    if (colon != std::string::npos && colon != 0 && line.compare(0, colon, message.component) == 0)
      return {message.component, line.substr(colon + 2)};
  return {"", line};
}

// "TIME -          9 - ": so many more of the line above.
bool explain_marker(const std::string& text, std::vector<std::string>& out) {
  static const std::regex* const marker = new std::regex(R"(^- +(\d+) - *$)");
  std::smatch found;
  if (!std::regex_match(text, found, *marker)) return false;
  out.push_back("The line above came " + found[1].str() + " more times, at last at this time.");
  return true;
}

void explain_message(const log_line& line, std::vector<std::string>& out) {
  for (const log_message& message : log_messages()) {
    if (!line.component.empty() && line.component != message.component) continue;
    if (!matches(message.text, line.text)) continue;
    out.push_back(*message.component != '\0'
                      ? muro::stringify(message.component, ": ", message.meaning)
                      : std::string(message.meaning));
    if (*message.advice != '\0') out.push_back(std::string("What to do: ") + message.advice);
  }
}

}  // namespace

bool matches(std::string_view text_template, std::string_view text) {
  bool open = false;
  const std::string_view first = take_literal(text_template, open);
  if (text.substr(0, first.size()) != first) return false;
  text.remove_prefix(first.size());
  while (open) {
    const std::string_view literal = take_literal(text_template, open);
    // The last literal stands at the end; the others as early as they can.
    const std::size_t at = open ? text.find(literal) : text.rfind(literal);
    if (at == std::string_view::npos) return false;
    if (!open) return at + literal.size() == text.size();
    text.remove_prefix(at + literal.size());
  }
  return text.empty();
}

std::vector<std::string> explain(const std::string& asked) {
  std::vector<std::string> out;
  if (is_number(asked)) {
    explain_number(std::atoi(asked.c_str()), out);
    return out;
  }
  const log_line line = parse(asked);
  if (explain_marker(line.text, out)) return out;
  explain_message(line, out);
  explain_exceptions(asked, out);
  return out;
}

void add_explain(CLI::App& app, invocation& asked) {
  CLI::App* const command =
      app.add_subcommand("explain", "say in plain words what a line of the log or a number means");
  const auto words = std::make_shared<std::vector<std::string>>();
  command->add_option("MESSAGE", *words, "a line of the log, or a part of it; an exit status")
      ->required();
  command->callback([&asked, words] {
    asked.chosen = [words](std::ostream& out, std::ostream&) {
      const std::string text = CLI::detail::join(*words, " ");
      const std::vector<std::string> lines = explain(text);
      if (lines.empty()) throw failure(exit_status::failed, "nothing is known of: " + text);
      for (const std::string& line : lines) out << line << '\n';
      return exit_status::done;
    };
  });
}

}  // namespace rnrctl
