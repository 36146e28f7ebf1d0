#pragma once

/// An event-style XML writer and the two ways of escaping.

#include <cstddef>
#include <string>

namespace muro {

enum class xml_escape_mode { text = 1, attribute = 2 };

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
  virtual void xml_sax_prepare(std::string& text);

  static void prepare_attribute(std::string& text);
};

class xml_write_string : public xml_sax_events {
 public:
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

void escape_xml_text(std::string& out, const char* utf8, std::size_t length);
void escape_xml_attribute(std::string& out, const char* utf8, std::size_t length);

}  // namespace muro
