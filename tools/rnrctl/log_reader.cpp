#include "tools/rnrctl/log_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "front/session_folder.h"
#include "muro/sys/files.h"
#include "muro/sys/strings.h"
#include "tools/rnrctl/survey.h"

namespace rnrctl {
namespace {

constexpr std::string_view kTimeShape = "dddd-dd-ddTdd:dd:ddZ";
constexpr const char* kSharedLogs = "/Library/PrivilegedHelperTools/korvel_helper*.out";
constexpr int kMostGenerations = 100;

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool is_time(std::string_view text) {
  const auto fits = [](char c, char shape) {
    return shape == 'd' ? c >= '0' && c <= '9' : c == shape;
  };
  return text.size() == kTimeShape.size() &&
         std::equal(text.begin(), text.end(), kTimeShape.begin(), fits);
}

// Takes the time off the front; "N" stands for a clock that could not be read.
std::string take_time(std::string_view& line) {
  const std::size_t blank = line.find(' ');
  const std::string_view first = line.substr(0, blank);
  if (blank == std::string_view::npos || (!is_time(first) && first != "N")) return {};
  line.remove_prefix(blank + 1);
  return first == "N" ? std::string() : std::string(first);
}

// "-          9 - ": the number; 0: no marker.
unsigned long long repeats_in(std::string_view text) {
  if (text.size() < 6 || text.substr(0, 2) != "- " || text.substr(text.size() - 3) != " - ")
    return 0;
  const std::string_view number = text.substr(2, text.size() - 5);
  const std::size_t first = number.find_first_not_of(' ');
  if (first == std::string_view::npos ||
      number.find_first_not_of("0123456789", first) != std::string_view::npos)
    return 0;
  return std::strtoull(std::string(number).c_str(), nullptr, 10);
}

// A component is one word, or a few; never with a path or punctuation in it.
std::string take_component(std::string_view& text) {
  const std::size_t colon = text.find(": ");
  if (colon == std::string_view::npos || colon == 0) return {};
  const std::string_view name = text.substr(0, colon);
  const bool begins_like_one = name[0] < '0' || name[0] > '9';
  if (!begins_like_one || name.find_first_of("/.,%\"'()`") != std::string_view::npos) return {};
  text.remove_prefix(colon + 2);
  return std::string(name);
}

void add_lines(std::vector<log_entry>& entries, const std::string& path) {
  const std::string content = file_content(path);
  std::string_view rest = content;
  for (std::size_t end; (end = rest.find('\n')) != std::string_view::npos;) {
    add_line(entries, rest.substr(0, end), path);
    rest.remove_prefix(end + 1);
  }
}

bool is_part_of_a_word(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         c == '-';
}

bool mentions(const std::string& text, const std::string& id) {
  for (std::size_t at = text.find(id); at != std::string::npos; at = text.find(id, at + 1)) {
    const std::size_t end = at + id.size();
    const bool whole = (at == 0 || !is_part_of_a_word(text[at - 1])) &&
                       (end == text.size() || !is_part_of_a_word(text[end]));
    if (whole) return true;
  }
  return false;
}

}  // namespace

std::string without_escapes(std::string_view text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const int high = text[at] == '`' && at + 2 < text.size() ? hex_digit(text[at + 1]) : -1;
    const int low = high >= 0 ? hex_digit(text[at + 2]) : -1;
    if (low < 0) {
      bytes += text[at];
      continue;
    }
    bytes += static_cast<char>(high * 16 + low);
    at += 2;
  }
  return bytes;
}

std::string printable(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    char escaped[5];
    if (c == '\n') {
      text += "\\n";
    } else if (c == '\t') {
      text += "\\t";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(c));
      text += escaped;
    } else {
      text += c;
    }
  }
  return text;
}

void add_line(std::vector<log_entry>& entries, std::string_view line, const std::string& file) {
  std::string time = take_time(line);
  const unsigned long long repeats = repeats_in(line);
  if (repeats != 0 && !entries.empty()) {
    entries.back().repeats = repeats;
    entries.back().last_time = std::move(time);
    return;
  }
  log_entry entry;
  entry.time = std::move(time);
  entry.component = take_component(line);
  entry.message = without_escapes(line);
  entry.file = file;
  entries.push_back(std::move(entry));
}

std::vector<log_entry> read_log(const std::string& path) {
  int generations = 0;
  const auto older = [&path](int number) { return path + "." + std::to_string(number); };
  while (generations < kMostGenerations && muro::file_exists(older(generations))) ++generations;
  std::vector<log_entry> entries;
  while (generations-- > 0) add_lines(entries, older(generations));
  add_lines(entries, path);
  return entries;
}

std::vector<std::string> log_files() {
  std::vector<std::string> files;
  muro::find_files(files, kSharedLogs);
  muro::find_files(files, std::string(kSessionsRoot) + "*/helper/*.out");
  return files;
}

std::vector<log_entry> merged(std::vector<std::vector<log_entry>> logs) {
  using keyed = std::pair<std::string, log_entry>;
  std::vector<keyed> all;
  for (std::vector<log_entry>& log : logs) {
    std::string latest;
    for (log_entry& entry : log) {
      // Without a time, or written after the clock was set back, a line stays behind the one before.
      latest = std::max(latest, entry.time);
      all.emplace_back(latest, std::move(entry));
    }
  }
  std::stable_sort(all.begin(), all.end(),
                   [](const keyed& a, const keyed& b) { return a.first < b.first; });
  std::vector<log_entry> entries;
  for (keyed& each : all) entries.push_back(std::move(each.second));
  return entries;
}

bool log_filter::passes(const log_entry& entry) const {
  if (!component.empty() && component != entry.component) return false;
  return id.empty() || starts_with(entry.file, kSessionsRoot + id + "/") ||
         mentions(entry.message, id);
}

}  // namespace rnrctl
