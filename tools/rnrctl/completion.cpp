#include <CLI/CLI.hpp>
#include <memory>

#include "tools/rnrctl/commands.h"

namespace rnrctl {
namespace {

/// One place in the command line: the words so far, and what may follow.
struct place {
  std::string words;  // "", "sessions", "sessions reset"
  std::string about;
  std::vector<std::string> commands;
  std::vector<std::string> options;
};

void add_places(const CLI::App& app, const std::string& words, std::vector<place>& places) {
  place here{words, app.get_description(), {}, {}};
  for (const CLI::Option* const option : app.get_options())
    for (const std::string& name : option->get_lnames()) here.options.push_back("--" + name);
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  for (const CLI::App* const command : commands) here.commands.push_back(command->get_name());
  places.push_back(here);
  for (const CLI::App* const command : commands)
    add_places(*command, words.empty() ? command->get_name() : words + " " + command->get_name(),
               places);
}

std::string joined(const std::vector<std::string>& words) {
  return CLI::detail::join(words, " ");
}

std::string bash(const std::vector<place>& places) {
  std::string text =
      "# Completion of rnrctl for bash; made by rnrctl completion.\n"
      "_rnrctl() {\n"
      "  local word=${COMP_WORDS[COMP_CWORD]} words= i\n"
      "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
      "    case \"$words ${COMP_WORDS[i]}\" in\n";
  for (const place& each : places)
    if (!each.words.empty())
      text += "      \" " + each.words + "\") words=\" " + each.words + "\" ;;\n";
  text +=
      "    esac\n"
      "  done\n"
      "  case $words in\n";
  for (const place& each : places) {
    const std::string follow = joined(each.commands) + " " + joined(each.options);
    text += "    \"" + std::string(each.words.empty() ? "" : " ") + each.words +
            "\") COMPREPLY=($(compgen -W \"" + follow + "\" -- \"$word\")) ;;\n";
  }
  text +=
      "  esac\n"
      "  [ ${#COMPREPLY[@]} -gt 0 ] || COMPREPLY=($(compgen -f -- \"$word\"))\n"
      "}\n"
      "complete -o filenames -F _rnrctl rnrctl\n";
  return text;
}

// Zsh reads bash's form through its bashcompinit.
std::string zsh(const std::vector<place>& places) {
  return "#compdef rnrctl\nautoload -U +X bashcompinit && bashcompinit\n" + bash(places);
}

std::string quoted(std::string text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? "\\'" : std::string(1, c);
  return out + "'";
}

std::string fish(const std::vector<place>& places) {
  std::string text = "# Completion of rnrctl for fish; made by rnrctl completion.\n";
  for (const place& each : places) {
    const std::string where = each.words.empty() ? "__fish_use_subcommand"
                                                 : "__fish_seen_subcommand_from " +
                                                       each.words.substr(each.words.rfind(' ') + 1);
    for (const std::string& command : each.commands) {
      const std::string words = each.words.empty() ? command : each.words + " " + command;
      for (const place& other : places)
        if (other.words == words)
          text += "complete -c rnrctl -n '" + where + "' -a " + command + " -d " +
                  quoted(other.about) + "\n";
    }
    for (const std::string& option : each.options)
      text += "complete -c rnrctl -n '" + where + "' -l " + option.substr(2) + "\n";
  }
  return text;
}

std::vector<place> all_places() {
  invocation asked;
  CLI::App app("", "rnrctl");
  add_commands(app, asked);
  std::vector<place> places;
  add_places(app, "", places);
  return places;
}

}  // namespace

void add_completion(CLI::App& app, invocation& asked) {
  CLI::App* const command =
      app.add_subcommand("completion", "print what a shell needs to complete this tool's words");
  const auto shell = std::make_shared<std::string>();
  command->add_option("SHELL", *shell, "bash, zsh or fish")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  command->callback([&asked, shell] {
    asked.chosen = [shell](std::ostream& out, std::ostream&) {
      const auto write = *shell == "fish" ? fish : *shell == "zsh" ? zsh : bash;
      out << write(all_places());
      return exit_status::done;
    };
  });
}

}  // namespace rnrctl
