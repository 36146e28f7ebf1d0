// XML text and the Unicode conversions behind it. The input's first byte chooses what it is for:
//
//   c  code points of three bytes each, with any value
//   d  a property list: pairs of lines, a key and a value; the value's first byte is its kind
//   w  events of the writer, each up to a zero byte; the first byte is the event
//   all else: a text to be escaped. The second byte puts a run of one character, or of broken text,
//      before it, so that the texts also lie across the ends of the converters' blocks
//
// For every input the product's text, in both modes of escaping, is byte for byte the one of a
// second implementation (model_xml.h). Conversions hand on whole blocks and no empty one, split no
// character between two, and what has become a text once is the same text for ever: escaping and
// conversion find nothing more to drop in it.

#include "fuzz/model_xml.h"

#include "fuzz/target.h"
#include "osx/plist_document.h"
#include "osx/property_list.h"
#include "osx/unicode.h"
#include "osx/xml_writer.h"

namespace {

constexpr std::size_t kCodePointsPerBlock = 256;
constexpr std::size_t kBytesPerBlock = 1024;

struct gathered_code_points {
  std::vector<unsigned> all;
  std::size_t last_run = kCodePointsPerBlock;
};

void gather_code_points(void* context, const unsigned* code_points, std::size_t count) {
  auto& to = *static_cast<gathered_code_points*>(context);
  fuzz::require(count > 0 && count <= kCodePointsPerBlock,
                "a run is at most a block, and not empty");
  fuzz::require(to.last_run == kCodePointsPerBlock, "only the last block is not full");
  to.last_run = count;
  to.all.insert(to.all.end(), code_points, code_points + count);
}

void gather_bytes(void* context, const unsigned char* bytes, std::size_t length) {
  fuzz::require(length > 0 && length <= kBytesPerBlock, "a run is at most a block, and not empty");
  fuzz::require(bytes[0] < 0x80 || bytes[0] >= 0xC0, "no character is split between two runs");
  static_cast<std::string*>(context)->append(reinterpret_cast<const char*>(bytes), length);
}

std::vector<unsigned> to_code_points(const std::string& text) {
  gathered_code_points got;
  xstd::llvm_convert_utf8_to_native_utf32(reinterpret_cast<const unsigned char*>(text.data()),
                                          text.size(), gather_code_points, &got);
  return got.all;
}

void check_to_utf8(const std::vector<unsigned>& code_points) {
  std::string wanted, got;
  for (const unsigned value : code_points) wanted += fuzz::utf8_form(value).text();
  xstd::llvm_convert_native_utf32_to_utf8(code_points.data(), code_points.size(), gather_bytes,
                                          &got);
  fuzz::require_equal(got, wanted, "code points become their UTF-8");
}

/// Nothing, some of one character of one to four bytes or of broken text, or about a block of it.
std::string filler(unsigned char choice) {
  static constexpr const char* kUnits[] = {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9D\x84\x9E",
                                           "a\x80"};
  std::string out;
  if (choice < 128) return out;
  const unsigned step = choice / 4 % 16;
  for (unsigned count = choice < 192 ? 5 * step : 248 + step; count > 0; --count)
    out += kUnits[choice % 5];
  return out;
}

std::string escaped(const std::string& text, bool in_attribute, std::string out) {
  (in_attribute ? muro::escape_xml_attribute : muro::escape_xml_text)(out, text.data(),
                                                                      text.size());
  return out;
}

void check_text(fuzz::input in) {
  const std::string text = filler(in.byte()).append(in.rest());
  const std::vector<unsigned> wanted = fuzz::scalars_of(text);
  const std::vector<unsigned> got = to_code_points(text);
  fuzz::require(got == wanted, "UTF-8 becomes the code points of its whole characters");
  check_to_utf8(got);
  for (const bool in_attribute : {false, true}) {
    std::string model = "kept ";
    for (const unsigned value : wanted) fuzz::append_xml(model, value, in_attribute);
    fuzz::require_equal(escaped(text, in_attribute, "kept "), model, "the escaped text");
  }
}

void check_code_points(fuzz::input in) {
  std::vector<unsigned> code_points = fuzz::scalars_of(filler(in.byte()));
  while (!in.empty()) {
    const unsigned low = in.number16();
    const unsigned value = low | static_cast<unsigned>(in.byte()) << 16;
    code_points.push_back(value == 0xFFFFFF ? ~0u : value);
  }
  check_to_utf8(code_points);
}

std::vector<std::string> items_of(std::string_view list) {
  std::vector<std::string> items;
  for (fuzz::input in(list); !in.empty();) items.emplace_back(in.until('|'));
  return items;
}

std::vector<std::string> strings_of(const std::vector<const char*>& null_terminated) {
  return {null_terminated.begin(), null_terminated.end() - 1};
}

/// One pair, by the product, added to `document` too, and (appended to `model`) by the second
/// implementation.
muro::plist_elem pair(const std::string& key, std::string_view value,
                      muro::plist_document& document, std::string& model) {
  const char kind = value.empty() ? '\0' : value[0];
  const std::string text(value.substr(value.empty() ? 0 : 1));
  model += fuzz::xml_element("key", key) + "\n";
  if (kind == 't' || kind == 'f') {
    model += kind == 't' ? "<true/>" : "<false/>";
    document.add_bool(key, kind == 't');
    return {key, kind == 't'};
  }
  if (kind != 'a' && kind != 'c') {
    model += fuzz::xml_element("string", text);
    document.add_string(key, text);
    return {key, text};
  }
  const std::vector<std::string> items = items_of(text);
  std::vector<const char*> pointers;
  model += "<array>\n";
  for (const std::string& item : items) {
    pointers.push_back(item.c_str());
    model += '\t' + fuzz::xml_element("string", kind == 'a' ? item : item.c_str()) + "\n";
  }
  pointers.push_back(nullptr);
  model += "</array>";
  document.add_strings(key, kind == 'a' ? items : strings_of(pointers));
  return kind == 'a' ? muro::plist_elem(key, items) : muro::plist_elem(key, pointers.data());
}

void check_document(fuzz::input in) {
  std::vector<muro::plist_elem> pairs;
  muro::plist_document document;
  std::string model =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<dict>\n";
  while (!in.empty()) {
    const std::string key(in.until('\n'));
    std::string rendered;
    pairs.push_back(pair(key, in.until('\n'), document, rendered));
    fuzz::require_equal(pairs.back().text(), rendered, "a pair");
    model += rendered + "\n";
  }
  model += "</dict>\n</plist>";
  fuzz::require_equal(muro::get_plist(pairs), model, "the document");
  fuzz::require_equal(document.finish(), model, "the document written in one go");
}

void send(char event, const std::string& text, muro::xml_sax_events& to, std::string& model) {
  if (event == '<') {
    to.xml_sax_element_begin(text);
    model += '<' + text;
  } else if (event == '=') {
    fuzz::input in(text);
    const std::string name(in.until('=')), value(in.rest());
    to.xml_sax_element_attribute(name, value);
    model += ' ' + name + "=\"" + fuzz::escaped_xml(value, true) + '"';
  } else if (event == '>') {
    to.xml_sax_element_children();
    model += '>';
  } else if (event == '/') {
    to.xml_sax_element_end(text);
    model += "</" + text + '>';
  } else if (event == '.') {
    to.xml_sax_element_end_empty();
    model += "/>";
  } else if (event == '!') {
    to.xml_sax_comment(text);
    model += "<!--" + text + "-->";
  } else if (event == 'p') {
    std::string prepared = text;
    to.xml_sax_prepare(prepared);
    fuzz::require_equal(prepared, fuzz::prepared(text), "a text prepared for an attribute");
  } else {
    to.xml_sax_text(text);
    model += fuzz::escaped_xml(text, false);
  }
}

void check_writer(fuzz::input in) {
  std::string out, model;
  muro::xml_write_string writer(&out);
  while (!in.empty()) {
    const char event = static_cast<char>(in.byte());
    send(event, std::string(in.until('\0')), writer, model);
  }
  fuzz::require_equal(out, model, "what the writer wrote");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::input in(data, size);
  switch (in.byte()) {
    case 'c':
      check_code_points(in);
      break;
    case 'd':
      check_document(in);
      break;
    case 'w':
      check_writer(in);
      break;
    default:
      check_text(in);
  }
  return 0;
}
