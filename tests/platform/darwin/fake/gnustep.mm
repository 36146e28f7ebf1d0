#import "tests/platform/darwin/fake/gnustep.h"

@implementation NSFileManager (MacAttributes)
// The older method sets the same attributes and tells no reason.
- (BOOL)setAttributes:(NSDictionary*)attributes
         ofItemAtPath:(NSString*)path
                error:(NSError**)error {
  if (error != nullptr) *error = nil;
  return [self changeFileAttributes:attributes atPath:path];
}
@end
