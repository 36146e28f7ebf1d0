#pragma once

/// A property list that is written in one go.

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "osx/xml_block.h"

namespace muro {

/// The lines that `get_plist` puts before and after its elements.
inline constexpr char kPlistHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n";
static_assert(sizeof kPlistHead - 1 == 171);

// Deliberate: no line end after the last line.
inline constexpr char kPlistTail[] =
    "</dict>\n"
    "</plist>";

/// Write a key and its value to `block` as `plist_elem` renders them, without a line end.
void put_string(xml_block& block, std::string_view key, std::string_view value);
void put_bool(xml_block& block, std::string_view key, bool value);
void put_strings(xml_block& block, std::string_view key, const std::vector<std::string>& values);

/// The text that `get_plist` gives for the same pairs, without a text of its own for each of them.
/// Throws what `escape_xml_text` throws; belongs to one thread.
class plist_document {
 public:
  plist_document() { block_.put(kPlistHead); }

  /// Each adds a pair behind the others. Texts are UTF-8 and are copied.
  void add_string(std::string_view key, std::string_view value);
  void add_bool(std::string_view key, bool value);
  void add_strings(std::string_view key, const std::vector<std::string>& values);
  void add_strings(std::string_view key, std::initializer_list<std::string_view> values);

  /// Ends the document and gives it away. Called once, at last.
  std::string finish();

 private:
  std::string text_;
  xml_block block_{text_};
};

}  // namespace muro
