#pragma once

/// A second log: what the error log writes, line by line, to a file and to standard error that are
/// strings. No memory of pieces, blocks or streams, only of what has to be remembered.

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

/// "2024-02-29T12:00:00Z", found by walking through years and months; from 1970 on.
inline std::string date_text(unsigned long long second) {
  const auto is_leap = [](unsigned year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  };
  unsigned long long day = second / 86400;
  unsigned year = 1970, month = 1;
  for (; day >= (is_leap(year) ? 366u : 365u); ++year) day -= is_leap(year) ? 366 : 365;
  const auto days_of_month = [&] {
    if (month == 2) return is_leap(year) ? 29u : 28u;
    return month == 4 || month == 6 || month == 9 || month == 11 ? 30u : 31u;
  };
  for (; day >= days_of_month(); ++month) day -= days_of_month();
  char text[64];
  std::snprintf(text, sizeof text, "%u-%02u-%02uT%02u:%02u:%02uZ", year, month,
                static_cast<unsigned>(day + 1), static_cast<unsigned>(second / 3600 % 24),
                static_cast<unsigned>(second / 60 % 60), static_cast<unsigned>(second % 60));
  return text;
}

inline std::string escaped_line(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && c != '`') {
      out += c;
      continue;
    }
    char code[4];
    std::snprintf(code, sizeof code, "`%02x", byte);
    out += code;
  }
  return out;
}

/// A line as it was queued.
struct queued_line {
  bool is_raw = false;
  std::string text;
  std::size_t prefix_length = 0;  // of a raw one

  std::string message() const {
    return text.size() > prefix_length + 1 ? text.substr(prefix_length + 1) : text;
  }
};

class second_log {
 public:
  // Settings.
  std::string stamp;
  std::string file_name;
  std::size_t cut_size = 0;
  bool echoes = true;
  bool stamps_echo = true;

  // The disk.
  bool exists = false;
  unsigned long number = 1;
  std::string content;
  std::string refusal;
  bool cannot_open = false;
  std::size_t room_for_write = std::string::npos;

  std::string standard_error;

  /// Writes one batch.
  void write(const std::vector<queued_line>& lines) {
    if (lines.empty()) return;
    const std::string why = file_name.empty() ? "" : refusal;
    if (!file_name.empty() && refusal.empty() && !cannot_open) write_to_file(lines);
    tell(why);
    if (!echoes && why.empty()) return;
    for (const queued_line& line : lines)
      standard_error += stamps_echo   ? whole(line)
                        : line.is_raw ? line.message()
                                      : escaped_line(line.text) + "\n";
  }

 private:
  std::string whole(const queued_line& line) const {
    return line.is_raw ? line.text : stamp + " " + escaped_line(line.text) + "\n";
  }

  void tell(const std::string& why) {
    const std::string notice = why.empty() ? "" : "log file " + file_name + " is not used: " + why;
    if (notice == told_) return;
    told_ = notice;
    if (why.empty()) return;
    if (stamps_echo) standard_error += stamp + " ";
    standard_error += escaped_line("errlog: " + notice) + "\n";
  }

  void write_to_file(const std::vector<queued_line>& lines) {
    exists = true;
    if (file_name != known_name_ ||
        (remembers_ && (number != known_number_ || content.size() < known_end_)))
      remembers_ = false;
    known_name_ = file_name;
    std::size_t begin = content.size();
    std::string piece;
    for (const queued_line& line : lines) {
      const std::size_t back = fold(whole(line), line.is_raw ? line.prefix_length : stamp.size());
      if (back > piece.size())
        begin -= back;  // the marker of an earlier batch
      else
        piece.resize(piece.size() - back);
      piece += out_;
    }
    // Raw lines without a byte leave the file as it is.
    if (!piece.empty()) cut(put(piece, begin));
  }

  /// Sets what is to be written; gives how far before the end it is to stand.
  std::size_t fold(const std::string& line, std::size_t prefix) {
    const bool repeats = remembers_ && prefix == last_prefix_ && line.size() == last_.size() &&
                         line.size() >= prefix + 17 && line.substr(prefix) == last_.substr(prefix);
    if (!repeats) {
      remembers_ = true;
      last_ = out_ = line;
      last_prefix_ = prefix;
      count_ = 0;
      return 0;
    }
    char counter[32];
    std::snprintf(counter, sizeof counter, " - %10u - \n", ++count_);
    out_ = line.substr(0, prefix) + counter;
    return count_ == 1 ? 0 : out_.size();
  }

  /// Writes as much as there is room for; gives where the file's position is then.
  std::size_t put(const std::string& piece, std::size_t begin) {
    const std::size_t written = std::min(piece.size(), room_for_write);
    room_for_write = std::string::npos;
    content.replace(begin, written, piece, 0, written);
    known_end_ = begin + written;
    known_number_ = number;
    if (written == piece.size()) return known_end_;
    remembers_ = false;
    if (written == 0) return begin;
    // Only whole lines stay of what was written in part, where nothing stands behind it.
    if (content.size() == known_end_)
      content.resize(begin + piece.substr(0, written).rfind('\n') + 1);
    return content.size();
  }

  /// Keeps the newest lines of a file that has grown too large.
  void cut(std::size_t position) {
    if (cut_size == 0 || cut_size >= position) return;
    const std::size_t half = cut_size / 2;
    const std::string newest = content.substr(position - half);
    std::size_t kept = 0;
    while (half > 0) {
      const std::size_t end = newest.find('\n', kept);
      const std::size_t line_end = end == std::string::npos ? newest.size() : end + 1;
      if (line_end == kept || line_end >= half) break;
      kept = line_end;
    }
    content = newest.substr(0, kept);
    remembers_ = false;
  }

  std::string told_;
  std::string out_;

  bool remembers_ = false;
  std::string last_;
  std::size_t last_prefix_ = 0;
  unsigned count_ = 0;

  std::string known_name_;
  unsigned long known_number_ = 0;
  std::size_t known_end_ = 0;
};

}  // namespace fuzz
