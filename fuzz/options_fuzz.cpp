// Start options. The input's lines are the words of the command line.
//
// For every command line the options read are those of a second implementation, which tells a
// value's tokens first and then walks them with a stack of its own; and the role is the first row
// of the table that fits.

#include <map>
#include <vector>

#include "front/roles.h"
#include "front/session_folder.h"
#include "fuzz/target.h"
#include "platform/linux/argument_value.h"
#include "platform/linux/property_list_xml.h"
#include "platform/linux/utf8.h"

namespace {

bool is_one_of(char c, std::string_view set) {
  return set.find(c) != std::string_view::npos;
}
constexpr std::string_view kBlanks = " \t\n\r\f\v";
constexpr std::string_view kOctal = "01234567";
constexpr std::string_view kHex = "0123456789abcdefABCDEF";
constexpr std::string_view kWord =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_$/:.-";

/// One token of the old property-list style: a character of "(){}=;,", or 's' for a string, 'd' for
/// data, 'e' at the end of the text, '!' for what is none.
struct token {
  char kind;
  std::string text;
};

class token_reader {
 public:
  explicit token_reader(std::string_view text) : left_(text) {}

  token next() {
    if (!skip_blanks_and_comments()) return {'!', ""};
    if (left_.empty()) return {'e', ""};
    const char c = left_[0];
    if (is_one_of(c, "(){}=;,")) return drop(1), token{c, ""};
    if (c == '<') return data();
    if (c == '"' || c == '\'') return quoted();
    std::size_t length = 0;
    while (length < left_.size() && is_one_of(left_[length], kWord)) ++length;
    const token word{length > 0 ? 's' : '!', std::string(left_.substr(0, length))};
    return drop(length), word;
  }

 private:
  void drop(std::size_t count) { left_.remove_prefix(count); }
  bool sees(std::string_view text) const { return left_.substr(0, text.size()) == text; }

  bool skip_blanks_and_comments() {
    while (!left_.empty()) {
      if (is_one_of(left_[0], kBlanks)) {
        drop(1);
      } else if (sees("//")) {
        drop(std::min(left_.find('\n'), left_.size()));
      } else if (sees("/*")) {
        const std::size_t end = left_.find("*/", 2);
        if (end == std::string_view::npos) return false;
        drop(end + 2);
      } else {
        return true;
      }
    }
    return true;
  }

  token data() {
    const std::size_t end = left_.find('>');
    if (end == std::string_view::npos) return {'!', ""};
    std::size_t digits = 0;
    for (const char c : left_.substr(1, end - 1)) {
      if (!is_one_of(c, kHex) && !is_one_of(c, kBlanks)) return {'!', ""};
      digits += is_one_of(c, kHex) ? 1U : 0U;
    }
    return drop(end + 1), token{digits % 2 == 0 ? 'd' : '!', ""};
  }

  token quoted() {
    const char quote = left_[0];
    token read{'s', ""};
    for (drop(1); !left_.empty() && left_[0] != quote;) {
      const char c = left_[0];
      drop(1);
      if (c != '\\')
        read.text += c;
      else if (!escaped(read.text))
        return {'!', ""};
    }
    if (left_.empty()) return {'!', ""};
    return drop(1), read;
  }

  bool escaped(std::string& out) {
    if (left_.empty()) return false;
    if (is_one_of(left_[0], kOctal)) return code(kOctal, 8, 3, 0x7f, out);
    const char c = left_[0];
    drop(1);
    if (c == 'U') return code(kHex, 16, 4, 0xffff, out);
    constexpr std::string_view kNames = "abfnrtv";
    const std::size_t at = kNames.find(c);
    out += at == std::string_view::npos ? c : "\a\b\f\n\r\t\v"[at];
    return true;
  }

  bool code(std::string_view set, unsigned base, std::size_t most, unsigned limit,
            std::string& out) {
    unsigned value = 0;
    for (; most > 0 && !left_.empty() && is_one_of(left_[0], set); --most, drop(1)) {
      const auto at = static_cast<unsigned>(kHex.find(left_[0]));
      value = value * base + (at < 16 ? at : at - 6);
    }
    return value != 0 && value <= limit && platform::append_utf8(out, value);
  }

  std::string_view left_;
};

/// Whether the whole text is one property list in the old style; `string` receives a string.
bool is_old_style(std::string_view text, nil_string& string) {
  constexpr std::size_t kDeepest = 64;
  enum { value, value_or_end, key_or_end, after_value } expected = value;
  token_reader from(text);
  std::string open;
  for (;;) {
    const token now = from.next();
    const char ends = open.empty() ? 'e' : open.back() == '(' ? ')' : '}';
    if (expected == after_value) {
      if (now.kind == 'e' && open.empty()) return true;
      if (now.kind == ends && ends == ')') {
        open.pop_back();
      } else if (now.kind == ',' && ends == ')') {
        expected = value_or_end;
      } else if (now.kind == ';' && ends == '}') {
        expected = key_or_end;
      } else {
        return false;
      }
    } else if (now.kind == ends && !open.empty() && expected != value) {
      open.pop_back();
      expected = after_value;
    } else if (expected == key_or_end) {
      if (now.kind != 's' || from.next().kind != '=') return false;
      expected = value;
    } else if (open.size() > kDeepest) {
      return false;
    } else if (now.kind == '(' || now.kind == '{') {
      open += now.kind;
      expected = now.kind == '(' ? value_or_end : key_or_end;
    } else if (now.kind == 's' || now.kind == 'd') {
      if (open.empty() && now.kind == 's') string = now.text;
      expected = after_value;
    } else {
      return false;
    }
  }
}

nil_string value_of(const std::string& word) {
  if (const auto list = platform::read_property_list_xml(word)) return list->scalar_text();
  nil_string string;
  return is_old_style(word, string) ? string : nil_string(word);
}

using words = std::vector<std::string>;

std::map<std::string, std::string> pairs_of(const words& line) {
  std::map<std::string, std::string> pairs;
  for (std::size_t i = 1; i < line.size(); ++i)
    if (line[i - 1][0] == '-' && line[i][0] != '-') pairs[line[i - 1].substr(1)] = line[i];
  return pairs;
}

class model {
 public:
  explicit model(const words& line) : pairs_(pairs_of(line)) {}

  nil_string text(const char* key) const {
    const auto found = pairs_.find(key);
    return found == pairs_.end() ? std::nullopt : value_of(found->second);
  }

  bool flag(const char* key) const {
    std::string_view left = text_or_empty(key);
    left.remove_prefix(std::min(left.find_first_not_of(kBlanks), left.size()));
    if (!left.empty() && is_one_of(left[0], "+-")) left.remove_prefix(1);
    left.remove_prefix(std::min(left.find_first_not_of('0'), left.size()));
    return !left.empty() && is_one_of(left[0], "123456789yYtT");
  }

 private:
  std::string_view text_or_empty(const char* key) const {
    kept_ = text(key).value_or("");
    // The system's functions end at a zero character, which an escape cannot make.
    return kept_;
  }

  std::map<std::string, std::string> pairs_;
  mutable std::string kept_;
};

role wanted_role(const start_options& options, bool names_session, bool exists) {
  if (options.test) return role::self_test;
  if (options.run_install) return role::install_shared_daemon;
  if (!options.restore_file.has_value()) return role::serve_shared;
  if (!names_session) return role::refuse_restore_file;
  if (!exists) return role::remove_session;
  return options.installed ? role::serve_session : role::install_session_daemon;
}

void require_same(const nil_string& got, const nil_string& wanted, const char* property) {
  fuzz::require(got.has_value() == wanted.has_value(), property);
  if (got) fuzz::require_equal(*got, *wanted, property);
}

void check(const words& line) {
  const model wanted(line);
  const start_options got = read_options();
  fuzz::require(got.test == wanted.flag("test"), "test");
  if (!got.test) {
    fuzz::require(got.installed == wanted.flag("installed"), "installed");
    require_same(got.exe_path, wanted.text("exePath"), "exePath");
    require_same(got.restore_file, wanted.text("restoreFile"), "restoreFile");
    fuzz::require(got.run_install == wanted.flag("runInstall"), "runInstall");
  } else {
    fuzz::require(!got.installed && !got.exe_path && !got.restore_file && !got.run_install,
                  "with test nothing else is read");
  }
  const nil_string id = restoreIDFromFile(got.restore_file);
  for (const bool exists : {false, true})
    fuzz::require(choose_role(got, id, exists) == wanted_role(got, namesSession(id), exists),
                  "the role is the first row that fits");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::input in(data, size);
  words line;
  // A word ends at a zero byte, as every argument does.
  while (!in.empty()) line.emplace_back(fuzz::input(in.until('\n')).until('\0'));
  std::vector<char*> arguments;
  std::string program = "korvel_helper";
  arguments.push_back(program.data());
  for (std::string& word : line) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  platform::set_arguments(static_cast<int>(arguments.size() - 1), arguments.data());
  check(line);
  return 0;
}
