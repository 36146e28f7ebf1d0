/// CoreFoundation's part of the fake Mac: reference counts are kept, and every call is written down.

#include <CoreFoundation/CoreFoundation.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "platform/linux/property_list_xml.h"
#include "tests/platform/darwin/fake/mac.h"

namespace {

enum type : CFTypeID { kUrl = 1, kData, kString, kDictionary, kOther };

/// Stays in memory after its release, so that a wrong release is seen.
struct object {
  type kind;
  std::string text;
  std::vector<std::pair<std::string, const object*>> entries;
  bool owned_by_caller = true;
  bool released = false;
};

std::vector<std::unique_ptr<object>>& all_objects() {
  static auto* const all = new std::vector<std::unique_ptr<object>>;
  return *all;
}

object* make(type kind, const std::string& text, bool owned = true) {
  all_objects().push_back(std::make_unique<object>(object{kind, text, {}, owned, false}));
  fake::world().live_objects += owned;
  return all_objects().back().get();
}

template <class Ref>
Ref ref(const object* one) {
  return reinterpret_cast<Ref>(one);
}

const object& of(const void* reference) {
  return *static_cast<const object*>(reference);
}

/// Whether the function fails by script; the call is written down.
bool fails(const std::string& function, const std::string& arguments) {
  fake::world().calls.push_back(function + " " + arguments);
  return fake::world().failing.count(function) != 0;
}

std::string encoding_name(CFStringEncoding encoding) {
  return encoding == kCFStringEncodingUTF8 ? "UTF-8" : "another encoding";
}

/// What a dictionary holds belongs to it.
object* tree(const platform::property_list& list, bool owned) {
  using kind = platform::property_list::kind;
  object* one = make(list.type == kind::dictionary ? kDictionary
                     : list.type == kind::string   ? kString
                                                   : kOther,
                     list.text, owned);
  for (std::size_t i = 0; i < list.keys.size(); ++i)
    one->entries.emplace_back(list.keys[i], tree(list.items[i], false));
  return one;
}

}  // namespace

extern "C" {

extern const CFAllocatorRef kCFAllocatorDefault = nullptr;

void CFRelease(CFTypeRef reference) {
  auto* one = const_cast<object*>(static_cast<const object*>(reference));
  if (one == nullptr || one->released || !one->owned_by_caller) {
    ++fake::world().wrong_releases;
    return;
  }
  one->released = true;
  --fake::world().live_objects;
}

CFTypeID CFGetTypeID(CFTypeRef reference) {
  return of(reference).kind;
}
CFTypeID CFDictionaryGetTypeID(void) {
  return kDictionary;
}
CFTypeID CFStringGetTypeID(void) {
  return kString;
}

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const UInt8* buffer,
                                                 CFIndex length, Boolean is_directory) {
  const std::string path(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
  if (fails("CFURLCreateFromFileSystemRepresentation", path + (is_directory ? " folder" : " file")))
    return nullptr;
  return ref<CFURLRef>(make(kUrl, path));
}

// Scripts: "read nothing" succeeds without data, "read in part" fails and leaves data to release.
Boolean CFURLCreateDataAndPropertiesFromResource(CFAllocatorRef, CFURLRef url, CFDataRef* data,
                                                 CFDictionaryRef* properties, CFArrayRef desired,
                                                 SInt32* error) {
  if (fails("CFURLCreateDataAndPropertiesFromResource",
            std::string(properties == nullptr && desired == nullptr ? "data" : "properties")))
    return false;
  if (fake::world().failing.count("read nothing") != 0) return true;
  std::ifstream file(of(url).text, std::ios::binary);
  *error = file.is_open() ? 0 : -15;
  if (!file.is_open()) return false;
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  *data = ref<CFDataRef>(make(kData, bytes));
  return fake::world().failing.count("read in part") == 0;
}

CFPropertyListRef CFPropertyListCreateFromXMLData(CFAllocatorRef, CFDataRef xml,
                                                  CFOptionFlags mutability, CFStringRef* error) {
  const bool refused = fails("CFPropertyListCreateFromXMLData",
                             mutability == kCFPropertyListImmutable ? "immutable" : "mutable");
  const auto list = platform::read_property_list_xml(of(xml).text);
  if (list && !refused) return tree(*list, true);
  *error = ref<CFStringRef>(make(kString, "the text is no property list"));
  return nullptr;
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
  const object& wanted = of(key);
  if (fails("CFDictionaryGetValue", wanted.text)) return nullptr;
  for (const auto& [name, value] : of(dictionary).entries)
    if (name == wanted.text) return value;
  return nullptr;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* text, CFStringEncoding encoding) {
  if (fails("CFStringCreateWithCString", encoding_name(encoding))) return nullptr;
  return ref<CFStringRef>(make(kString, text));
}

// Failing: the object keeps its text in another form.
const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding) {
  if (fails("CFStringGetCStringPtr", encoding_name(encoding))) return nullptr;
  return of(string).text.c_str();
}

Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex size,
                           CFStringEncoding encoding) {
  const std::string& text = of(string).text;
  const std::string arguments = std::to_string(size) + " " + encoding_name(encoding);
  if (fails("CFStringGetCString", arguments) || static_cast<CFIndex>(text.size()) >= size)
    return false;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return true;
}
}
