/// Property lists, escaping and conversion.

#include <string>
#include <vector>

#include "osx/job_text.h"
#include "osx/property_list.h"
#include "osx/unicode.h"
#include "osx/xml_writer.h"
#include "tests/budget/budget.h"

namespace {

std::string repeated(const std::string& piece, std::size_t size) {
  std::string text;
  while (text.size() < size) text += piece;
  return text;
}

void job_text() {
  static const std::vector<std::string> args = {
      "/Library/Application Support/Korvel/0123456789/app/Korvel & Co.app/Contents/MacOS/Korvel",
      "-installed", "1", "-restoreFile", "0123456789.dat"};
  budget::keep(osx::launchd_agent_text("com.norvane.korvel.restart.0123456789", args));
}

void array_text() {
  static const std::vector<std::string> items(
      1000, "/Applications/Korvel.app/Contents/Resources/item <a & b>");
  budget::keep(muro::get_plist({muro::plist_elem("ProgramArguments", items)}));
}

void escape(const std::string& plain) {
  std::string out;
  muro::escape_xml_text(out, plain.data(), plain.size());
  budget::keep(out);
}

void escape_clean() {
  static const std::string plain = repeated("/Library/Application Support/Korvel. ", 65536);
  escape(plain);
}

void escape_entities() {
  static const std::string plain = repeated("a<b&c>", 65536);
  escape(plain);
}

/// A line with sequences of every length and a broken one.
const std::string& mixed_text() {
  static const std::string text = repeated(
      "Zw\xC3\xB6lf \xE5\xA4\xA9\xE5\x9C\xB0\xE7\x8E\x84\xE9\xBB\x84 Boxk\xC3\xA4mpfer jagen Viktor"
      " \xF0\x9F\x98\x80\xF0\x9F\x9A\x80\xF0\x9F\x8E\x89\xF0\x9F\x91\x8D \xFF quer\n",
      65536);
  return text;
}

void utf8_to_utf32() {
  const std::string& text = mixed_text();
  xstd::llvm_convert_utf8_to_native_utf32(
      reinterpret_cast<const unsigned char*>(text.data()), text.size(),
      [](void*, const unsigned int* made, std::size_t) { budget::keep(*made); }, nullptr);
}

std::vector<unsigned int> mixed_code_points() {
  std::vector<unsigned int> all;
  const std::string& text = mixed_text();
  xstd::llvm_convert_utf8_to_native_utf32(
      reinterpret_cast<const unsigned char*>(text.data()), text.size(),
      [](void* to, const unsigned int* made, std::size_t count) {
        auto& out = *static_cast<std::vector<unsigned int>*>(to);
        out.insert(out.end(), made, made + count);
      },
      &all);
  return all;
}

void utf32_to_utf8() {
  static const std::vector<unsigned int> text = mixed_code_points();
  xstd::llvm_convert_native_utf32_to_utf8(
      text.data(), text.size(),
      [](void*, const unsigned char* made, std::size_t) { budget::keep(*made); }, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  return budget::run(argc, argv,
                     {{"job_text", job_text},
                      {"array_text", array_text},
                      {"escape_clean", escape_clean},
                      {"escape_entities", escape_entities},
                      {"utf8_to_utf32", utf8_to_utf32},
                      {"utf32_to_utf8", utf32_to_utf8}});
}
