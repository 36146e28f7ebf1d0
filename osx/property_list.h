#pragma once

/// The only producer of property-list text.

#include <string>
#include <vector>

namespace muro {

/// One rendered key and value of the top dictionary, without a line end.
class plist_elem {
 public:
  plist_elem(const std::string& key, const std::string& value);
  plist_elem(const std::string& key, const char* value);  // a literal is a string, never a bool
  plist_elem(const std::string& key, bool value);
  plist_elem(const std::string& key, const std::vector<std::string>& values);
  plist_elem(const std::string& key, const char** values);

  void add_text(const std::string& name, const std::string& text);
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

std::string get_plist(const std::vector<plist_elem>& elements);

}  // namespace muro
