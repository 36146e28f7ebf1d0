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

@interface NSDictionary : NSObject
@end

@interface NSError : NSObject
+ (id)errorWithDomain:(NSString*)domain code:(NSInteger)code userInfo:(NSDictionary*)info;
- (NSString*)localizedDescription;
@end

@interface NSUserDefaults : NSObject
+ (NSUserDefaults*)standardUserDefaults;
- (BOOL)boolForKey:(NSString*)key;
- (NSString*)stringForKey:(NSString*)key;
@end

@interface NSFileManager : NSObject
+ (NSFileManager*)defaultManager;
- (BOOL)copyItemAtPath:(NSString*)from toPath:(NSString*)to error:(NSError**)error;
@end

extern "C" {
extern NSString* const NSPOSIXErrorDomain;
}
