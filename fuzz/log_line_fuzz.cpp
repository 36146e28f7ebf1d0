// The error log from the caller's line to the bytes in the file, without its thread: what callers
// queue is written when the input says so. The input is a sequence of letters, each with what it
// needs; texts go up to a byte 0xff.
//
//   l s  a line by one of four scopes, at a level    e  the echo: on, with timestamps
//   r    a raw line: the prefix's length, the data   k  a sink in place of the file
//   f    the queue is written                        p  the report level
//   t T  time goes on; is set; N: it cannot be read  v  the log's level
//   c    the size above which the file is cut        F  the filter
//   n    the log file's name                         h  the hook
//   a x d  others append to the file, shorten it, replace it
//   w    the next write has room for so many bytes   R  the file must not, or cannot, be opened
//
// For every sequence the file, standard error and what the sink and the hook are told are byte for
// byte what a second log writes (model_log.h): prefixed, filtered, escaped, folded into markers,
// placed, cut. Raw lines are given back once.

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <stdexcept>
#include <utility>

#include "fuzz/fake_log_file.h"
#include "fuzz/model_log.h"
#include "fuzz/target.h"
#include "muro/core/errlog.h"
#include "muro/core/hooks.h"
#include "muro/core/log_dumper.h"
#include "platform/platform.h"

namespace {

/// What callers have queued; the log's thread would take it. Empty between inputs, for which it keeps
/// its memory.
muro::log_queue& queued = *new muro::log_queue;

struct state {
  muro::log_output output;
  fuzz::second_log second;
  std::vector<fuzz::queued_line> lines;
  std::deque<std::string> raw_data;  // where they are is where they stay
  int filter = 0;
  int report_level = 0;
  int level = 0;
  bool has_hook = false;
  bool has_sink = false;
  long long now_s = 0;
  bool has_time = true;

  std::string told, wanted_told;  // by the hook
  std::string sunk, wanted_sunk;  // by the sink
  int given_back = 0;
};

state* now = nullptr;

void give_back(const char*) {
  ++now->given_back;
}

/// The filter: lines with an "x" are dropped, at those with a "y" it fails.
int filter(const char* line, std::size_t length) {
  const std::string_view text(line, length);
  if (text.find('y') != std::string_view::npos) throw std::runtime_error("filter");
  return text.find('x') == std::string_view::npos;
}

bool is_filtered(const std::string& line) {
  return line.find('y') == std::string::npos && line.find('x') != std::string::npos;
}

void hook(const char* line, std::size_t length) {
  now->told.append(line, length).append("\n");
  if (length % 8 == 3) throw std::runtime_error("hook");
}

void sink(const char* line, std::size_t length) {
  now->sunk.append(line, length).append("\n");
  if (length % 8 == 5) throw std::runtime_error("sink");
}

long long time_ms() {
  if (!now->has_time) throw std::runtime_error("no time");
  return now->now_s * 1000 + 999;
}

void set_stamp() {
  now->second.stamp =
      now->has_time ? fuzz::date_text(static_cast<unsigned long long>(now->now_s)) : "N";
}

std::string report_prefix() {
  static const std::string process = std::to_string(::getpid());
  static const std::string thread = std::to_string(platform::thread_number());
  if (now->report_level == 1) return "[" + process + "] ";
  return now->report_level == 2 ? "[" + process + ":" + thread + "] " : "";
}

void log_line(fuzz::input& in, int level) {
  static constexpr const char* kNames[] = {"scope", "", nullptr, "muro::`x"};
  const char* const name = kNames[in.byte() % 4];
  const std::string text(in.until('\xff'));
  muro::errlog(name).log(level, text.data(), text.size());
  std::string line = text;
  if (name != nullptr && *name != '\0') line = std::string(name) + ": " + text;
  if (level > now->level || (now->filter != 0 && is_filtered(line))) return;
  now->lines.push_back({false, report_prefix() + line, 0});
  if (now->has_hook) now->wanted_told += line + "\n";
}

void log_raw(fuzz::input& in) {
  const unsigned choice = in.byte();
  const std::size_t prefix = choice == 255 ? static_cast<std::size_t>(-1) : choice % 64u;
  now->raw_data.emplace_back(in.until('\xff'));
  const std::string& data = now->raw_data.back();
  muro::errlog::log_line_direct(data.data(), data.size(), prefix, give_back);
  now->lines.push_back({true, data, std::min<std::size_t>(prefix, 1000)});
}

void sink_by_second() {
  for (const fuzz::queued_line& line : now->lines) {
    std::string text = line.is_raw ? line.message() : fuzz::escaped_line(line.text);
    while (line.is_raw && !text.empty() && (text.back() == '\n' || text.back() == '\r'))
      text.pop_back();
    now->wanted_sunk += text + "\n";
  }
}

void flush() {
  fake::disk.takes_standard_error = true;
  now->output.write(queued);
  fake::disk.takes_standard_error = false;
  now->has_sink ? sink_by_second() : now->second.write(now->lines);
  const auto raw_lines = std::count_if(now->lines.begin(), now->lines.end(),
                                       [](const auto& line) { return line.is_raw; });
  fuzz::require(std::exchange(now->given_back, 0) == raw_lines, "raw lines are given back once");
  fuzz::require(queued.empty(), "nothing stays queued");
  now->lines.clear();
  now->raw_data.clear();
  fuzz::require_equal(fake::disk.content, now->second.content, "the file");
  fuzz::require_equal(fake::disk.standard_error, now->second.standard_error, "standard error");
  fuzz::require_equal(now->sunk, now->wanted_sunk, "what the sink got");
  fuzz::require_equal(now->told, now->wanted_told, "what the hook was told");
}

void set_time(char letter, fuzz::input& in) {
  now->has_time = letter != 'N';
  if (letter == 't') now->now_s += in.byte();
  if (letter == 'T') now->now_s = static_cast<long long>(in.number16()) << 18 | in.byte();
  set_stamp();
}

void interfere(char letter, fuzz::input& in) {
  std::string& content = now->second.content;
  if (letter == 'a') {
    content += in.until('\xff');
  } else if (letter == 'x') {
    content.resize(std::min<std::size_t>(content.size(), in.byte()));
  } else {
    content.clear();
    fake::disk.number = ++now->second.number;
    fake::disk.exists = now->second.exists = false;
  }
  fake::disk.content = content;
}

void set_files_state(fuzz::input& in) {
  static constexpr const char* kRefusals[] = {"", "it is a link", "", "it is \"\n\""};
  const unsigned choice = in.byte() % 4;
  now->second.refusal = fake::disk.refusal = kRefusals[choice];
  now->second.cannot_open = fake::disk.cannot_open = choice == 2;
}

void set(char letter, unsigned value) {
  static constexpr const char* kNames[] = {"/log", "/other\n", ""};
  switch (letter) {
    case 'e':
      muro::errlog::set_log_to_stderr(now->second.echoes = value % 2 != 0);
      muro::errlog::set_log_stderr_timestamps(now->second.stamps_echo = value / 2 % 2 != 0);
      break;
    case 'k':
      muro::errlog::set_log_direct_sink((now->has_sink = value % 2 != 0) ? sink : nullptr);
      break;
    case 'p':
      muro::g_run_report_level = now->report_level = static_cast<int>(value % 4);
      break;
    case 'v':
      muro::errlog::set_log_level(now->level = static_cast<int>(value % 4) - 1);
      break;
    case 'c':
      muro::errlog::set_log_cut(now->second.cut_size = value);
      break;
    case 'F':
      muro::errlog::set_log_filter((now->filter = value % 2) != 0 ? filter : nullptr);
      break;
    case 'h':
      muro::errlog::set_log_line_hook((now->has_hook = value % 2 != 0) ? hook : nullptr);
      break;
    case 'n':
      muro::set_log_file_name(now->second.file_name = kNames[value % 3]);
      break;
    default:
      fake::disk.room_for_write = now->second.room_for_write = value;
  }
}

void step(fuzz::input& in) {
  const char letter = static_cast<char>(in.byte());
  switch (letter) {
    case 'l':
      return log_line(in, 0);
    case 's':
      return log_line(in, static_cast<int>(in.byte() % 4) - 1);
    case 'r':
      return log_raw(in);
    case 't':
    case 'T':
    case 'N':
      return set_time(letter, in);
    case 'a':
    case 'x':
    case 'd':
      return interfere(letter, in);
    case 'R':
      return set_files_state(in);
    default:
      if (std::string_view("ekpvcFhnw").find(letter) == std::string_view::npos) return flush();
      return set(letter, in.byte());
  }
}

/// Every input begins with the same settings, and an empty file.
void begin(state& fresh) {
  now = &fresh;
  fake::disk = {};
  set('e', 3);
  for (const char letter : {'k', 'p', 'c', 'F', 'h', 'n'}) set(letter, 0);
  set('v', 1);
  set_stamp();
}

}  // namespace

// The queue without the thread behind it, in place of muro/core/log_dumper.cpp.
namespace muro {

void log_dumper::push(const text_parts& parts) {
  queued.push(parts);
}

void log_dumper::push(const raw_log_line& line) {
  queued.push(line);
}

void log_dumper::wait_for_flush() {}

}  // namespace muro

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = (fake::start_log_disk(), muro::x_absolute_time = time_ms, true);
  static_cast<void>(ready);
  fuzz::input in(data, size);
  state fresh;
  begin(fresh);
  while (!in.empty()) step(in);
  flush();
  return 0;
}
