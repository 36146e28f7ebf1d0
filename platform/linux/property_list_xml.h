#pragma once

/// A small, strict reader of XML property lists, for files and arguments that a stranger may have
/// written. It knows the prolog (XML declaration, document type without an internal subset),
/// comments, processing instructions, CDATA sections, the five named entities and numbered
/// characters, and the ten elements of the format. All else makes the whole text unreadable:
/// unknown elements or attributes, a missing end, text between elements, malformed UTF-8, an
/// encoding other than UTF-8 or US-ASCII, more than 64 levels.

#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace platform {

/// One element of a property list with what it holds.
struct property_list {
  enum class kind { string, number, boolean, date, data, array, dictionary };

  kind type = kind::string;
  std::string text;                  ///< of a scalar; "1" or "0" for a boolean
  std::vector<std::string> keys;     ///< of a dictionary, one for each item
  std::vector<property_list> items;  ///< of an array or dictionary

  /// The dictionary's item of that key, the last one where a key is repeated; null without one.
  const property_list* find(const std::string& key) const;

  /// The text of a string, number or boolean; nil for the rest.
  nil_string scalar_text() const;
};

/// The root element in `xml`; nullopt when it is no well-formed property list.
std::optional<property_list> read_property_list_xml(const std::string& xml);

}  // namespace platform
