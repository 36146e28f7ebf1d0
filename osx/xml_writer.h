#pragma once

/// An event-style XML writer and the two ways of escaping.
///
/// A caller sends events to a `muro::xml_sax_events`; `muro::xml_write_string` turns them into text
/// in a string. One element with an attribute and a text is
///
///     xml_sax_element_begin("a")             <a
///     xml_sax_element_attribute("b", "1")     b="1"
///     xml_sax_element_children()             >
///     xml_sax_text("x & y")                  x &amp; y
///     xml_sax_element_end("a")               </a>
///
/// and an empty one ends in `xml_sax_element_end_empty()` instead of the last three events. All
/// texts are UTF-8. Nothing here keeps process-wide state; a writer belongs to one thread.

#include <cstddef>
#include <string>

namespace muro {

/// Which characters are replaced by entities: "&", "<" and ">" in both modes, the double quote in
/// attribute mode alone, the apostrophe in neither.
enum class xml_escape_mode { text = 1, attribute = 2 };

/// A receiver of XML events. The order of the virtual operations is part of the interface.
class xml_sax_events {
 public:
  virtual ~xml_sax_events() = default;
  virtual void xml_sax_element_begin(const std::string& name) = 0;
  virtual void xml_sax_element_attribute(const std::string& name, const std::string& value) = 0;
  virtual void xml_sax_element_children() = 0;
  virtual void xml_sax_element_end(const std::string& name) = 0;
  virtual void xml_sax_element_end_empty() = 0;
  virtual void xml_sax_text(const std::string& text) = 0;
  virtual void xml_sax_comment(const std::string& text) = 0;
  /// Prepares a text in place for an attribute; the base calls `prepare_attribute`.
  virtual void xml_sax_prepare(std::string& text);

  /// Turns every CR LF pair, then every CR, LF and tab left over, into one blank, so that the text
  /// survives the white-space normalisation of attribute values (XML 1.0, section 3.3.3).
  static void prepare_attribute(std::string& text);
};

/// Appends each event's text to a string at once. It neither buffers nor checks: events in a wrong
/// order give malformed XML, and names and comments are written as they are.
class xml_write_string : public xml_sax_events {
 public:
  /// `out` is not owned and outlives the writer.
  explicit xml_write_string(std::string* out) : out_(out) {}
  void xml_sax_element_begin(const std::string& name) override;
  void xml_sax_element_attribute(const std::string& name, const std::string& value) override;
  void xml_sax_element_children() override;
  void xml_sax_element_end(const std::string& name) override;
  void xml_sax_element_end_empty() override;
  void xml_sax_text(const std::string& text) override;
  void xml_sax_comment(const std::string& text) override;

 private:
  std::string* out_;
};

/// Append `length` bytes of UTF-8 to `out`, escaped for character data or for an attribute value in
/// double quotes. Ill-formed bytes are dropped as `xstd::llvm_convert_utf8_to_native_utf32` says,
/// and so is every character that has no place in a document: the controls but tab, line feed,
/// carriage return and U+0085, the surrogates, and noncharacters. `utf8` must not point into `out`.
/// Throw nothing but `std::bad_alloc` and the converters' ":Error in 'convert'".
void escape_xml_text(std::string& out, const char* utf8, std::size_t length);
void escape_xml_attribute(std::string& out, const char* utf8, std::size_t length);

}  // namespace muro
