#pragma once

/// The few declarations of Foundation that this program uses, written from its public
/// documentation. Memory is managed by hand: retain, release, pools.

#include <objc/objc.h>
#include <stddef.h>

typedef long NSInteger;
typedef unsigned long NSUInteger;
typedef NSUInteger NSStringEncoding;

enum { NSUTF8StringEncoding = 4 };

@class NSDictionary, NSError, NSString;

__attribute__((objc_root_class))
@interface NSObject {
  Class isa;
}
+ (id)alloc;
- (id)init;
- (id)retain;
- (oneway void)release;
- (id)autorelease;
@end

@interface NSAutoreleasePool : NSObject
- (void)drain;
@end

@interface NSString : NSObject
- (id)initWithBytes:(const void*)bytes
             length:(NSUInteger)length
           encoding:(NSStringEncoding)encoding;
- (const char*)UTF8String;
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)encoding;
@end

@interface NSNumber : NSObject
+ (NSNumber*)numberWithUnsignedShort:(unsigned short)value;
@end

@interface NSArray : NSObject
- (NSUInteger)count;
- (id)objectAtIndex:(NSUInteger)index;
@end

@interface NSDictionary : NSObject
+ (id)dictionaryWithObjects:(const id*)objects forKeys:(const id*)keys count:(NSUInteger)count;
@end

@interface NSError : NSObject
- (NSString*)localizedDescription;
@end

@interface NSUserDefaults : NSObject
+ (NSUserDefaults*)standardUserDefaults;
- (BOOL)boolForKey:(NSString*)key;
- (NSString*)stringForKey:(NSString*)key;
@end

@interface NSFileManager : NSObject
+ (NSFileManager*)defaultManager;
- (BOOL)createDirectoryAtPath:(NSString*)path
    withIntermediateDirectories:(BOOL)intermediates
                     attributes:(NSDictionary*)attributes
                          error:(NSError**)error;
- (BOOL)copyItemAtPath:(NSString*)from toPath:(NSString*)to error:(NSError**)error;
- (BOOL)setAttributes:(NSDictionary*)attributes ofItemAtPath:(NSString*)path error:(NSError**)error;
- (NSArray*)subpathsAtPath:(NSString*)path;
@end

extern "C" {
extern NSString* const NSFilePosixPermissions;
extern NSString* const NSFileOwnerAccountName;
extern NSString* const NSFileGroupOwnerAccountName;
}
