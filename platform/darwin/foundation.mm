/// The Foundation half of the macOS side: start options, pools, the file manager. Memory is managed
/// by hand and the newer syntax is left out, so that every Objective-C++ compiler takes it.

#import <Foundation/Foundation.h>

#include <utility>

#include "platform/platform.h"

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

constexpr NSUInteger kModeAlone = 1;
constexpr NSUInteger kModeAndAccounts = 3;

NSNumber* permissions(mode_t mode) {
  return [NSNumber numberWithUnsignedShort:static_cast<unsigned short>(mode)];
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

file_outcome create_folder(const std::string& path, mode_t mode) {
  const autorelease_pool pool;
  NSString* folder = path_from(path);
  if (folder == nil) return {false, std::nullopt};
  const id keys[] = {NSFilePosixPermissions};
  const id values[] = {permissions(mode)};
  NSDictionary* attributes = [NSDictionary dictionaryWithObjects:values
                                                         forKeys:keys
                                                           count:kModeAlone];
  NSError* error = nil;
  const BOOL ok = [[NSFileManager defaultManager] createDirectoryAtPath:folder
                                            withIntermediateDirectories:YES
                                                             attributes:attributes
                                                                  error:&error];
  return outcome_of(ok, error);
}

file_outcome copy_item(const std::string& from, const std::string& to) {
  const autorelease_pool pool;
  NSString* source = path_from(from);
  NSString* target = path_from(to);
  if (source == nil || target == nil) return {false, std::nullopt};
  NSError* error = nil;
  const BOOL ok = [[NSFileManager defaultManager] copyItemAtPath:source
                                                          toPath:target
                                                           error:&error];
  return outcome_of(ok, error);
}

file_outcome set_attributes(const std::string& path, mode_t mode, const char* owner,
                            const char* group) {
  const autorelease_pool pool;
  NSString* item = path_from(path);
  const id keys[] = {NSFilePosixPermissions, NSFileOwnerAccountName, NSFileGroupOwnerAccountName};
  const id values[] = {permissions(mode), string_from(owner), string_from(group)};
  if (item == nil || values[1] == nil || values[2] == nil) return {false, std::nullopt};
  NSDictionary* attributes = [NSDictionary dictionaryWithObjects:values
                                                         forKeys:keys
                                                           count:kModeAndAccounts];
  NSError* error = nil;
  const BOOL ok = [[NSFileManager defaultManager] setAttributes:attributes
                                                   ofItemAtPath:item
                                                          error:&error];
  return outcome_of(ok, error);
}

std::vector<std::string> subpaths(const std::string& path) {
  const autorelease_pool pool;
  std::vector<std::string> paths;
  NSString* folder = path_from(path);
  if (folder == nil) return paths;
  NSArray* found = [[NSFileManager defaultManager] subpathsAtPath:folder];
  const NSUInteger count = [found count];
  for (NSUInteger i = 0; i < count; ++i)
    if (nil_string name = text_of([found objectAtIndex:i])) paths.push_back(*std::move(name));
  return paths;
}

}  // namespace platform
