#pragma once

/// The few declarations of CoreFoundation that this program uses, written from its public
/// documentation, for building where its SDK is not installed.

#include <stdint.h>
#ifdef __APPLE__
#include <MacTypes.h>
#else
typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef int32_t OSStatus;
typedef int16_t OSErr;
typedef uint32_t OSType;
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFOptionFlags;
typedef uint32_t CFStringEncoding;

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFURL* CFURLRef;
typedef const struct __CFData* CFDataRef;
typedef const struct __CFArray* CFArrayRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef CFTypeRef CFPropertyListRef;

enum { kCFStringEncodingUTF8 = 0x08000100 };
enum { kCFPropertyListImmutable = 0 };

extern const CFAllocatorRef kCFAllocatorDefault;

void CFRelease(CFTypeRef object);
CFTypeID CFGetTypeID(CFTypeRef object);

void CFRunLoopRun(void);

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8* buffer,
                                                 CFIndex length, Boolean is_directory);
Boolean CFURLCreateDataAndPropertiesFromResource(CFAllocatorRef allocator, CFURLRef url,
                                                 CFDataRef* data, CFDictionaryRef* properties,
                                                 CFArrayRef desired, SInt32* error);
CFPropertyListRef CFPropertyListCreateFromXMLData(CFAllocatorRef allocator, CFDataRef xml,
                                                  CFOptionFlags mutability, CFStringRef* error);

CFTypeID CFDictionaryGetTypeID(void);
const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key);

CFTypeID CFStringGetTypeID(void);
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding);
const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding);
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex size,
                           CFStringEncoding encoding);

#ifdef __cplusplus
}
#endif
