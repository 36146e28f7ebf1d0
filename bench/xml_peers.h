#pragma once

/// Other ways to the text of a property list (`text`) and to escaped text (`escaped`), each by the
/// fastest interface that its makers offer for it: a writer where there is one, else a tree. None
/// indents.

#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#ifdef KORVEL_BENCH_PUGIXML
#include <pugixml.hpp>
#endif
#ifdef KORVEL_BENCH_LIBXML2
#include <libxml/entities.h>
#include <libxml/xmlwriter.h>
#endif
#ifdef KORVEL_BENCH_LIBPLIST
#include <plist/plist.h>
#endif
#ifdef KORVEL_BENCH_TINYXML2
#include <tinyxml2.h>
#endif
#ifdef KORVEL_BENCH_GLIB
#include <glib.h>
#endif

namespace bench {

using plist_value = std::variant<std::string, bool, std::vector<std::string>>;
using plist = std::vector<std::pair<std::string, plist_value>>;

/// Calls the fitting one of three functions.
template <class Text, class Flag, class Array>
void visit(const plist_value& value, Text text, Flag flag, Array array) {
  if (const auto* s = std::get_if<std::string>(&value)) {
    text(*s);
  } else if (const auto* b = std::get_if<bool>(&value)) {
    flag(*b ? "true" : "false");
  } else {
    array(std::get<std::vector<std::string>>(value));
  }
}

constexpr char kDoctype[] =
    "DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\"";

struct string_stream {
  static void escape(std::ostream& out, const std::string& text) {
    for (const char c : text) {
      switch (c) {
        case '&':
          out << "&amp;";
          break;
        case '<':
          out << "&lt;";
          break;
        case '>':
          out << "&gt;";
          break;
        default:
          out.put(c);
      }
    }
  }
  static void element(std::ostream& out, const char* name, const std::string& text) {
    out << '<' << name << '>';
    escape(out, text);
    out << "</" << name << ">\n";
  }
  static std::string text(const plist& entries) {
    std::ostringstream out;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!" << kDoctype
        << ">\n<plist version=\"1.0\">\n<dict>\n";
    for (const auto& [key, value] : entries) {
      element(out, "key", key);
      visit(
          value, [&](const std::string& s) { element(out, "string", s); },
          [&](const char* name) { out << '<' << name << "/>\n"; },
          [&](const std::vector<std::string>& items) {
            out << "<array>\n";
            for (const std::string& item : items) element(out, "string", item);
            out << "</array>\n";
          });
    }
    out << "</dict>\n</plist>";
    return std::move(out).str();
  }
};

#ifdef KORVEL_BENCH_PUGIXML
struct pugixml {
  struct string_writer : pugi::xml_writer {
    std::string out;
    void write(const void* data, std::size_t size) override {
      out.append(static_cast<const char*>(data), size);
    }
  };
  static void element(pugi::xml_node parent, const char* name, const std::string& text) {
    parent.append_child(name).append_child(pugi::node_pcdata).set_value(text.c_str());
  }
  static std::string text(const plist& entries) {
    pugi::xml_document document;
    auto head = document.append_child(pugi::node_declaration);
    head.append_attribute("version") = "1.0";
    head.append_attribute("encoding") = "UTF-8";
    document.append_child(pugi::node_doctype).set_value(kDoctype + sizeof "DOCTYPE");
    auto top = document.append_child("plist");
    top.append_attribute("version") = "1.0";
    auto dict = top.append_child("dict");
    for (const auto& [key, value] : entries) {
      element(dict, "key", key);
      visit(
          value, [&](const std::string& s) { element(dict, "string", s); },
          [&](const char* name) { dict.append_child(name); },
          [&](const std::vector<std::string>& items) {
            auto array = dict.append_child("array");
            for (const std::string& item : items) element(array, "string", item);
          });
    }
    string_writer writer;
    document.save(writer, "", pugi::format_raw, pugi::encoding_utf8);
    return std::move(writer.out);
  }
  /// Only printing the text is measured: its tree is kept.
  static std::string escaped(const std::string& plain) {
    static pugi::xml_document document;
    static std::string in_document;
    if (in_document != plain) {
      in_document = plain;
      document.reset();
      element(document, "t", plain);
    }
    string_writer writer;
    document.document_element().first_child().print(writer, "", pugi::format_raw);
    return std::move(writer.out);
  }
};
#endif

#ifdef KORVEL_BENCH_LIBXML2
struct libxml2 {
  static const xmlChar* chars(const char* text) { return reinterpret_cast<const xmlChar*>(text); }
  static void element(xmlTextWriter* writer, const char* name, const std::string& text) {
    xmlTextWriterWriteElement(writer, chars(name), chars(text.c_str()));
  }
  static std::string text(const plist& entries) {
    xmlBuffer* const out = xmlBufferCreate();
    xmlTextWriter* const writer = xmlNewTextWriterMemory(out, 0);
    xmlTextWriterStartDocument(writer, "1.0", "UTF-8", nullptr);
    xmlTextWriterWriteDTD(writer, chars("plist"), chars("-//Apple//DTD PLIST 1.0//EN"),
                          chars("http://www.apple.com/DTDs/PropertyList-1.0.dtd"), nullptr);
    xmlTextWriterStartElement(writer, chars("plist"));
    xmlTextWriterWriteAttribute(writer, chars("version"), chars("1.0"));
    xmlTextWriterStartElement(writer, chars("dict"));
    for (const auto& [key, value] : entries) {
      element(writer, "key", key);
      visit(
          value, [&](const std::string& s) { element(writer, "string", s); },
          [&](const char* name) {
            xmlTextWriterStartElement(writer, chars(name));
            xmlTextWriterEndElement(writer);
          },
          [&](const std::vector<std::string>& items) {
            xmlTextWriterStartElement(writer, chars("array"));
            for (const std::string& item : items) element(writer, "string", item);
            xmlTextWriterEndElement(writer);
          });
    }
    xmlTextWriterEndDocument(writer);
    xmlFreeTextWriter(writer);
    std::string result(reinterpret_cast<const char*>(xmlBufferContent(out)),
                       static_cast<std::size_t>(xmlBufferLength(out)));
    xmlBufferFree(out);
    return result;
  }
  static std::string escaped(const std::string& plain) {
    xmlChar* const made = xmlEncodeSpecialChars(nullptr, chars(plain.c_str()));
    std::string result(reinterpret_cast<const char*>(made));
    xmlFree(made);
    return result;
  }
};
#endif

#ifdef KORVEL_BENCH_LIBPLIST
struct libplist {
  static std::string text(const plist& entries) {
    const plist_t dict = plist_new_dict();
    for (const auto& [key, value] : entries) {
      const char* const k = key.c_str();
      visit(
          value,
          [&](const std::string& s) { plist_dict_set_item(dict, k, plist_new_string(s.c_str())); },
          [&](const std::string& name) {
            plist_dict_set_item(dict, k, plist_new_bool(name == "true"));
          },
          [&](const std::vector<std::string>& items) {
            const plist_t array = plist_new_array();
            for (const std::string& item : items) {
              plist_array_append_item(array, plist_new_string(item.c_str()));
            }
            plist_dict_set_item(dict, k, array);
          });
    }
    char* made = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(dict, &made, &length);
    std::string result(made, length);
    plist_to_xml_free(made);
    plist_free(dict);
    return result;
  }
};
#endif

#ifdef KORVEL_BENCH_TINYXML2
struct tinyxml2_printer {
  static void element(tinyxml2::XMLPrinter& out, const char* name, const std::string& text) {
    out.OpenElement(name, true);
    out.PushText(text.c_str());
    out.CloseElement(true);
  }
  static std::string text(const plist& entries) {
    tinyxml2::XMLPrinter out(nullptr, true);
    out.PushDeclaration("xml version=\"1.0\" encoding=\"UTF-8\"");
    out.PushUnknown(kDoctype);
    out.OpenElement("plist", true);
    out.PushAttribute("version", "1.0");
    out.OpenElement("dict", true);
    for (const auto& [key, value] : entries) {
      element(out, "key", key);
      visit(
          value, [&](const std::string& s) { element(out, "string", s); },
          [&](const char* name) {
            out.OpenElement(name, true);
            out.CloseElement(true);
          },
          [&](const std::vector<std::string>& items) {
            out.OpenElement("array", true);
            for (const std::string& item : items) element(out, "string", item);
            out.CloseElement(true);
          });
    }
    out.CloseElement(true);
    out.CloseElement(true);
    return {out.CStr(), static_cast<std::size_t>(out.CStrSize() - 1)};
  }
};
#endif

#ifdef KORVEL_BENCH_GLIB
struct glib {
  static std::string escaped(const std::string& plain) {
    char* const made = g_markup_escape_text(plain.data(), static_cast<gssize>(plain.size()));
    std::string result(made);
    g_free(made);
    return result;
  }
};
#endif

}  // namespace bench
