/// The Foundation half of the macOS side: start options, pools, the file manager. Memory is managed
/// by hand and the newer syntax is left out, so that every Objective-C++ compiler takes it.

#import <Foundation/Foundation.h>

#include <cerrno>

#include "platform/darwin/newer_calls.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/folders.h"

namespace platform {

namespace {

/// An autoreleased string; nil when `text` is not UTF-8.
NSString* string_from(const char* text) {
  return [[[NSString alloc] initWithBytes:text
                                   length:std::char_traits<char>::length(text)
                                 encoding:NSUTF8StringEncoding] autorelease];
}

/// An autoreleased path; nil for what is none: empty, with a zero byte, or not UTF-8. Foundation
/// raises an exception for nil, so every operation asks first.
NSString* path_from(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) return nil;
  return [[[NSString alloc] initWithBytes:path.data()
                                   length:path.size()
                                 encoding:NSUTF8StringEncoding] autorelease];
}

nil_string text_of(NSString* string) {
  const char* bytes = [string UTF8String];
  if (bytes == nullptr) return std::nullopt;  // nil, or no well-formed text
  return std::string(bytes, [string lengthOfBytesUsingEncoding:NSUTF8StringEncoding]);
}

file_outcome outcome_of(BOOL ok, NSError* error) {
  if (ok) return {true, std::nullopt};
  return {false, text_of([error localizedDescription])};
}

/// The system's description of `error`, an errno.
nil_string description_of(int error) {
  return text_of([[NSError errorWithDomain:NSPOSIXErrorDomain code:error
                                  userInfo:nil] localizedDescription]);
}

}  // namespace

void set_arguments(int, char**) {}  // the system keeps its own

bool bool_option(const char* key) {
  const autorelease_pool pool;
  return [[NSUserDefaults standardUserDefaults] boolForKey:string_from(key)] != NO;
}

nil_string string_option(const char* key) {
  const autorelease_pool pool;
  return text_of([[NSUserDefaults standardUserDefaults] stringForKey:string_from(key)]);
}

autorelease_pool::autorelease_pool() : pool_([[NSAutoreleasePool alloc] init]) {}

autorelease_pool::~autorelease_pool() { [static_cast<NSAutoreleasePool*>(pool_) drain]; }

// By plain calls: the file manager's own would give every new folder the mode, by path and after
// making it wider, and would follow any link.
file_outcome create_folder(const std::string& path, mode_t mode) {
  const autorelease_pool pool;
  if (detail::make_folders(path, mode)) return {true, std::nullopt};
  return {false, description_of(errno)};
}

// The file manager copies what belongs to an item on this system (attributes, access lists, flags)
// and clones where the volume can; rights it cannot be asked for.
copy_outcome copy_item(const std::string& from, const std::string& to,
                       const std::optional<item_rights>&) {
  const autorelease_pool pool;
  if (path_from(to) == nil) return {{false, std::nullopt}, false};
  const descriptor folder = detail::open_parent(to);
  if (!folder.is_open()) return {{false, description_of(errno)}, false};
  NSString* source = path_from(from);
  NSString* target = path_from(detail::path_of_folder(folder.get(), detail::parent_of(to)) + "/" +
                               detail::last_name(to));
  if (source == nil || target == nil) return {{false, std::nullopt}, false};
  NSError* error = nil;
  const BOOL ok = [[NSFileManager defaultManager] copyItemAtPath:source
                                                          toPath:target
                                                           error:&error];
  return {outcome_of(ok, error), false};
}

}  // namespace platform
