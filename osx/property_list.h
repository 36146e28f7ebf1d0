#pragma once

/// The only producer of property-list text.
///
/// A document is a dictionary of strings, booleans and arrays of strings, written byte for byte so:
///
///     <?xml version="1.0" encoding="UTF-8"?>
///     <!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "...PropertyList-1.0.dtd">
///     <plist version="1.0">
///     <dict>
///     <key>Label</key>
///     <string>com.example.job</string>
///     <key>ProgramArguments</key>
///     <array>
///     <tab><string>/bin/true</string>
///     </array>
///     <key>RunAtLoad</key>
///     <true/>
///     </dict>
///     </plist>
///
/// Lines end in one line feed; there is none after the last line. The format is that of plist(5).

#include <string>
#include <vector>

namespace muro {

/// One rendered key and value of the top dictionary, without a line end. A plain value, rendered
/// once by its constructor. Keys, strings and array items are escaped by `escape_xml_text`; what is
/// thrown is what that function throws.
class plist_elem {
 public:
  plist_elem(const std::string& key, const std::string& value);
  /// A string too: without this constructor a literal would turn into a bool. Null is "".
  plist_elem(const std::string& key, const char* value);
  plist_elem(const std::string& key, bool value);
  /// An array of strings, one item a line.
  plist_elem(const std::string& key, const std::vector<std::string>& values);
  /// The same for a list of C strings that ends in a null pointer.
  plist_elem(const std::string& key, const char** values);

  /// Appends one element `name` with the escaped `text` to the rendered text. The name is written
  /// as it is.
  void add_text(const std::string& name, const std::string& text);

  /// The rendered text.
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// The whole document with `elements` in their order.
std::string get_plist(const std::vector<plist_elem>& elements);

}  // namespace muro
