/// The Foundation half of the macOS side: start options, pools, the file manager. Memory is managed
/// by hand and the newer syntax is left out, so that every Objective-C++ compiler takes it.

#import <Foundation/Foundation.h>

#include "platform/platform.h"

namespace platform {

namespace {

/// An autoreleased string; nil when `text` is not UTF-8.
NSString* string_from(const char* text, std::size_t length) {
  return [[[NSString alloc] initWithBytes:text length:length
                                 encoding:NSUTF8StringEncoding] autorelease];
}

NSString* path_from(const std::string& path) {
  return [[NSFileManager defaultManager] stringWithFileSystemRepresentation:path.data()
                                                                     length:path.size()];
}

nil_string text_of(NSString* string) {
  if (string == nil) return std::nullopt;
  return std::string([string UTF8String],
                     [string lengthOfBytesUsingEncoding:NSUTF8StringEncoding]);
}

file_outcome outcome_of(BOOL ok, NSError* error) {
  if (ok) return {true, std::nullopt};
  return {false, text_of([error localizedDescription])};
}

NSNumber* permissions(mode_t mode) {
  return [NSNumber numberWithUnsignedShort:static_cast<unsigned short>(mode)];
}

}  // namespace

void set_arguments(int, char**) {}  // the system keeps its own

bool bool_option(const char* key) {
  autorelease_pool pool;
  return [[NSUserDefaults standardUserDefaults] boolForKey:string_from(key, std::char_traits<char>::length(key))] != NO;
}

nil_string string_option(const char* key) {
  autorelease_pool pool;
  return text_of([[NSUserDefaults standardUserDefaults]
      stringForKey:string_from(key, std::char_traits<char>::length(key))]);
}

autorelease_pool::autorelease_pool() : pool_([[NSAutoreleasePool alloc] init]) {}

autorelease_pool::~autorelease_pool() { [static_cast<NSAutoreleasePool*>(pool_) drain]; }

file_outcome create_folder(const std::string& path, mode_t mode) {
  autorelease_pool pool;
  const id keys[] = {NSFilePosixPermissions};
  const id values[] = {permissions(mode)};
  NSError* error = nil;
  const BOOL ok = [[NSFileManager defaultManager]
            createDirectoryAtPath:path_from(path)
      withIntermediateDirectories:YES
                       attributes:[NSDictionary dictionaryWithObjects:values forKeys:keys count:1]
                            error:&error];
  return outcome_of(ok, error);
}

file_outcome copy_item(const std::string& from, const std::string& to) {
  autorelease_pool pool;
  NSError* error = nil;
  const BOOL ok = [[NSFileManager defaultManager] copyItemAtPath:path_from(from)
                                                          toPath:path_from(to)
                                                           error:&error];
  return outcome_of(ok, error);
}

file_outcome set_attributes(const std::string& path, mode_t mode, const char* owner,
                            const char* group) {
  autorelease_pool pool;
  const id keys[] = {NSFilePosixPermissions, NSFileOwnerAccountName, NSFileGroupOwnerAccountName};
  const id values[] = {permissions(mode), string_from(owner, std::char_traits<char>::length(owner)),
                       string_from(group, std::char_traits<char>::length(group))};
  NSError* error = nil;
  const BOOL ok = [[NSFileManager defaultManager]
      setAttributes:[NSDictionary dictionaryWithObjects:values forKeys:keys count:3]
       ofItemAtPath:path_from(path)
              error:&error];
  return outcome_of(ok, error);
}

std::vector<std::string> subpaths(const std::string& path) {
  autorelease_pool pool;
  NSArray* found = [[NSFileManager defaultManager] subpathsAtPath:path_from(path)];
  std::vector<std::string> paths;
  const NSUInteger count = [found count];
  for (NSUInteger i = 0; i < count; ++i)
    paths.emplace_back([static_cast<NSString*>([found objectAtIndex:i]) fileSystemRepresentation]);
  return paths;
}

}  // namespace platform
