// The version file. An input that begins with "<" or a byte-order mark is a file, all else is a
// version text and the text that a well-made file holds.
//
// For every version text the release is the one that a plain reading of the rule gives.
// For every file that is accepted:
//   - its tags are balanced, by a scan that knows no more of the format;
//   - written out again plainly, it is read as the same property list.
// For every text that a file can hold, the file gives it back, and the release follows from it.

#include <limits>
#include <vector>

#include "fuzz/target.h"
#include "osx/os_version.h"
#include "platform/linux/property_list_xml.h"
#include "platform/linux/utf8.h"

namespace {

using platform::property_list;
using kind = platform::property_list::kind;

bool answers(std::uint32_t selector, int& value) {
  value = static_cast<int>(selector & 0xf);
  return true;
}

/// The number at the front of a piece: blanks, a sign, digits; held to the limits of an int.
int number_of(std::string_view piece) {
  while (!piece.empty() && std::string_view(" \t\n\r\f\v").find(piece[0]) != std::string_view::npos)
    piece.remove_prefix(1);
  const bool negative = !piece.empty() && piece[0] == '-';
  if (!piece.empty() && (piece[0] == '-' || piece[0] == '+')) piece.remove_prefix(1);
  constexpr long long kLargest = std::numeric_limits<int>::max();
  long long value = 0;
  for (; !piece.empty() && piece[0] >= '0' && piece[0] <= '9'; piece.remove_prefix(1))
    value = std::min(value * 10 + (piece[0] - '0'), 2 * kLargest);
  return static_cast<int>(negative ? std::max(-value, -kLargest - 1) : std::min(value, kLargest));
}

void check_release(const platform::nil_string& text) {
  const muro::os_release got = muro::os_release_of(text, answers);
  int wanted[3] = {1, 2, 3};
  if (text && !text->empty()) {
    fuzz::input pieces(*text);
    for (int& number : wanted) number = number_of(pieces.until('.'));
  }
  fuzz::require(got.major == wanted[0] && got.minor == wanted[1] && got.bugfix == wanted[2],
                "the release is what the text's pieces say");
}

platform::nil_string version_in(const std::string& file) {
  const auto root = platform::read_property_list_xml(file);
  const property_list* version = root ? root->find("ProductVersion") : nullptr;
  if (version == nullptr || version->type != kind::string) return std::nullopt;
  return version->text;
}

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '<')
      out += "&lt;";
    else if (c == '&')
      out += "&amp;";
    else
      out += c;
  }
  return out;
}

void write(const property_list& from, std::string& out) {
  static constexpr const char* kNames[] = {"string", "integer", "",    "date",
                                           "data",   "array",   "dict"};
  if (from.type == kind::boolean) {
    out += from.text == "1" ? "<true/>" : "<false/>";
    return;
  }
  std::string name = kNames[static_cast<int>(from.type)];
  // A number keeps its text only; what is no integer was a real.
  if (from.type == kind::number && from.text.find_first_of(".eE") != std::string::npos &&
      from.text.find_first_of("xX") == std::string::npos)
    name = "real";
  out += '<' + name + '>' + escaped(from.text);
  for (std::size_t i = 0; i < from.items.size(); ++i) {
    if (from.type == kind::dictionary) out += "<key>" + escaped(from.keys[i]) + "</key>";
    write(from.items[i], out);
  }
  out += "</" + name + '>';
}

bool same(const property_list& a, const property_list& b) {
  if (a.type != b.type || a.text != b.text || a.keys != b.keys || a.items.size() != b.items.size())
    return false;
  for (std::size_t i = 0; i < a.items.size(); ++i)
    if (!same(a.items[i], b.items[i])) return false;
  return true;
}

/// Passes over `begin` ... `end` at the front of `left`.
bool skip(std::string_view& left, std::string_view begin, std::string_view end) {
  if (left.substr(0, begin.size()) != begin) return false;
  const std::size_t at = left.find(end, begin.size());
  fuzz::require(at != std::string_view::npos, "what begins in an accepted file also ends");
  left.remove_prefix(at + end.size());
  return true;
}

/// Takes "<...>" off the front of `left`, and follows it in the list of open elements.
void follow_tag(std::string_view& left, std::vector<std::string_view>& open) {
  const std::size_t end = left.find('>');
  fuzz::require(end != std::string_view::npos, "a tag has an end");
  std::string_view tag = left.substr(1, end - 1);
  left.remove_prefix(end + 1);
  const bool closes = tag.substr(0, 1) == "/";
  const bool empty = !tag.empty() && tag.back() == '/';
  if (closes) tag.remove_prefix(1);
  const std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n/"));
  if (closes) {
    fuzz::require(!open.empty() && open.back() == name, "a tag closes the one that is open");
    open.pop_back();
  } else if (!empty) {
    open.push_back(name);
  }
}

void check_balance(std::string_view left) {
  std::vector<std::string_view> open;
  while (!left.empty()) {
    if (left[0] != '<')
      left.remove_prefix(std::min(left.find('<'), left.size()));
    else if (!skip(left, "<!--", "-->") && !skip(left, "<![CDATA[", "]]>") &&
             !skip(left, "<?", "?>") && !skip(left, "<!DOCTYPE", ">"))
      follow_tag(left, open);
  }
  fuzz::require(open.empty(), "every tag is closed");
}

void check_file(const std::string& file) {
  const auto list = platform::read_property_list_xml(file);
  if (!list) return;
  check_balance(file);
  std::string plain = "<plist>";
  write(*list, plain);
  const auto again = platform::read_property_list_xml(plain + "</plist>");
  fuzz::require(again && same(*again, *list), "a plain copy is read as the same");
  check_release(version_in(file));
}

bool can_be_held(const std::string& text) {
  return text.find('\0') == std::string::npos && platform::is_utf8(text);
}

void check_text(const std::string& text) {
  if (!can_be_held(text)) return;
  const std::string value = "<string>" + escaped(text) + "</string>";
  const platform::nil_string version = version_in(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
      "<key>ProductVersion</key><string>not the last</string>\n"
      "<key>ProductName</key>" +
      value + "<key>ProductVersion</key>" + value + "</dict></plist>\n");
  fuzz::require(version.has_value(), "a well-made file has a version");
  fuzz::require_equal(*version, text, "the version is the text of the file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (size > 0 && (text[0] == '<' || text[0] == '\xEF')) {
    check_file(text);
  } else {
    check_release(text);
    check_text(text);
  }
  return 0;
}
