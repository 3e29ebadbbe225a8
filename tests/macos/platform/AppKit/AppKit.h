// The pasteboard, as far as src/macos uses it. The stand-in keeps one text and remembers whether it
// was written on the main thread.
#pragma once

#import <Foundation/Foundation.h>

#ifdef __cplusplus
extern "C" {
#endif
typedef NSString* NSPasteboardType;
extern NSPasteboardType const NSPasteboardTypeString;
#ifdef __cplusplus
}
#endif

@interface NSPasteboard : NSObject
+ (NSPasteboard*)generalPasteboard;
- (NSInteger)clearContents;
- (BOOL)setString:(NSString*)string forType:(NSPasteboardType)dataType;
@end
