#pragma once

/// What macOS's Foundation has and GNUstep's lacks. Included first in foundation.mm on Linux.

#import <Foundation/Foundation.h>

@interface NSFileManager (MacAttributes)
- (BOOL)setAttributes:(NSDictionary*)attributes ofItemAtPath:(NSString*)path error:(NSError**)error;
@end
