#include "tools/rnrctl/launchd_view.h"

#include <unistd.h>

#include "muro/core/exception.h"
#include "muro/core/fmt.h"
#include "muro/sys/process.h"
#include "muro/sys/strings.h"
#include "osx/os_version.h"

namespace rnrctl {
namespace {

using words = std::vector<std::string>;

constexpr const char* kLaunchctl = "/bin/launchctl";
constexpr const char* kSystem = "system";
constexpr const char* kSudo = "/usr/bin/sudo";
constexpr long kLimit_s = 5;
constexpr const char* kOverrides = "/var/db/launchd.db/com.apple.launchd";

std::string joined(const words& command) {
  std::string line;
  for (const std::string& word : command) (line += line.empty() ? "" : " ") += word;
  return line;
}

// The call's output; empty, and a note, when it failed.
std::optional<std::string> output_of(const words& command, launchd_view& view) {
  try {
    long long status = 0;
    std::string out = muro::process::system_immediate(
        command.front(), {command.begin() + 1, command.end()}, &status, kLimit_s);
    if (status == 0) return out;
    if (status < 0) throw muro::exception::function("system_immediate");
    view.notes.push_back(muro::stringify(joined(command), " ended with ", status));
  } catch (const muro::exception&) {
    view.notes.push_back(joined(command) + " gave no answer");
  }
  return std::nullopt;
}

std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

void note(std::map<std::string, std::set<std::string>>& where, const std::set<std::string>& labels,
          const std::string& domain) {
  for (const std::string& label : labels) where[label].insert(domain);
}

std::string domain_of(const user_session& user) {
  return "gui/" + (user.uid ? std::to_string(*user.uid) : user.name);
}

// In the user's own bootstrap context, since launchd answers root for the system alone.
words in_session_of(const user_session& user, const words& command) {
  words all{kLaunchctl, "bsexec", std::to_string(user.pid), kSudo, "-u", user.name};
  all.insert(all.end(), command.begin(), command.end());
  return all;
}

void take_list(const words& command, const std::string& domain, launchd_view& view) {
  const auto list = output_of(command, view);
  if (!list) return;
  if (domain == kSystem) view.known = true;
  note(view.loaded, labels_in_list(*list), domain);
}

void ask_for_loaded(const std::vector<user_session>& users, launchd_view& view) {
  take_list({kLaunchctl, "list"}, kSystem, view);
  for (const user_session& user : users)
    take_list(in_session_of(user, {kLaunchctl, "list"}), domain_of(user), view);
}

void read_overrides(const std::vector<user_session>& users, launchd_view& view) {
  const std::string file = "/overrides.plist";
  note(view.disabled, labels_overridden(file_content(kOverrides + file)), kSystem);
  for (const user_session& user : users) {
    if (!user.uid) continue;
    const std::string folder = muro::stringify(kOverrides, ".peruser.", *user.uid);
    note(view.disabled, labels_overridden(file_content(folder + file)), domain_of(user));
  }
}

void ask_for_disabled(const std::vector<user_session>& users, launchd_view& view) {
  const auto ask = [&view](const std::string& domain) {
    const auto text = output_of({kLaunchctl, "print-disabled", domain}, view);
    if (text) note(view.disabled, labels_disabled(*text), domain);
  };
  ask(kSystem);
  for (const user_session& user : users)
    if (user.uid) ask(domain_of(user));
}

}  // namespace

std::set<std::string> labels_in_list(const std::string& text) {
  std::set<std::string> labels;
  for (const std::string_view line : lines_of(text)) {
    const std::size_t at = line.find_last_of("\t ");
    if (at != std::string_view::npos) labels.emplace(line.substr(at + 1));
  }
  return labels;
}

std::set<std::string> labels_disabled(const std::string& text) {
  std::set<std::string> labels;
  for (const std::string_view line : lines_of(text)) {
    const std::size_t open = line.find('"');
    const std::size_t close = line.rfind("\" => ");
    if (open == std::string_view::npos || close == std::string_view::npos || close <= open)
      continue;
    const std::string_view value = line.substr(close + 5);
    if (value == "true" || value == "disabled")
      labels.emplace(line.substr(open + 1, close - open - 1));
  }
  return labels;
}

std::set<std::string> labels_overridden(const std::string& xml) {
  constexpr std::string_view kKey = "<key>", kEnd = "</key>";
  std::set<std::string> labels;
  std::string label;
  for (std::size_t at = 0; (at = xml.find(kKey, at)) != std::string::npos;) {
    at += kKey.size();
    const std::size_t end = xml.find(kEnd, at);
    if (end == std::string::npos) break;
    const std::string key = xml.substr(at, end - at);
    const std::size_t value = xml.find('<', end + kEnd.size());
    if (key != "Disabled") {
      label = key;
    } else if (value != std::string::npos && xml.compare(value, 7, "<true/>") == 0) {
      labels.insert(label);
    }
  }
  return labels;
}

launchd_view ask_launchd(const std::vector<user_session>& users) {
  launchd_view view;
  if (::geteuid() != 0) {
    view.notes.emplace_back("launchd was not asked: only root can see all of it (use sudo)");
    return view;
  }
  ask_for_loaded(users, view);
  if (osx::is_os_version_or_later(10, 10)) {
    ask_for_disabled(users, view);
  } else {
    read_overrides(users, view);
  }
  return view;
}

}  // namespace rnrctl
