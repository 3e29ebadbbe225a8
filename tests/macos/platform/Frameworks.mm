// AppKit's pasteboard and the uniform types.
#include "StandIn.h"
#include "StandInState.h"

#import <AppKit/AppKit.h>
#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

#include "platform/tasks/MainQueue.h"

using kestrune::platform::MutexLock;

NSPasteboardType const NSPasteboardTypeString = @"public.utf8-plain-text";

@implementation NSPasteboard
+ (NSPasteboard*)generalPasteboard {
  static NSPasteboard* const general = [[NSPasteboard alloc] init];
  return general;
}
- (void)noteThread {
  if (kestrune::platform::isMainThread()) return;
  MutexLock lock(standin::State::shared().mutex);
  standin::State::shared().touchedElsewhere = true;
}
- (NSInteger)clearContents {
  [self noteThread];
  MutexLock lock(standin::State::shared().mutex);
  standin::State::shared().pasteboard.reset();
  return 1;
}
- (BOOL)setString:(NSString*)string forType:(NSPasteboardType)dataType {
  [self noteThread];
  MutexLock lock(standin::State::shared().mutex);
  if (![dataType isEqualToString:NSPasteboardTypeString]) return NO;
  standin::State::shared().pasteboard = [string UTF8String];
  return YES;
}
@end

@interface UTType (StandIn)
- (instancetype)initWithIdentifier:(NSString*)identifier;
@end

UTType* standInFolderType() {
  static UTType* const type = [[UTType alloc] initWithIdentifier:@"public.folder"];
  return type;
}

UTType* standInDataType() {
  static UTType* const type = [[UTType alloc] initWithIdentifier:@"public.data"];
  return type;
}

namespace {

/// Extension, type, and whether the type is data.
NSDictionary* registered() {
  static NSDictionary* const types = [@{
    @"pdf" : @"com.adobe.pdf",
    @"txt" : @"public.plain-text",
    @"png" : @"public.png",
    @"bin" : @"com.apple.macbinary-archive",
  } retain];
  return types;
}

}  // namespace

@implementation UTType
- (instancetype)initWithIdentifier:(NSString*)identifier {
  if ((self = [super init])) _identifier = [identifier copy];
  return self;
}
- (void)dealloc {
  [_identifier release];
  [super dealloc];
}
+ (UTType*)typeWithIdentifier:(NSString*)identifier {
  const BOOL isKnown = [identifier isEqualToString:@"public.folder"] ||
                       [identifier isEqualToString:@"public.data"] ||
                       [identifier hasPrefix:@"dyn."] ||
                       [[registered() allValues] containsObject:identifier];
  if (!isKnown) return nil;
  return [[[UTType alloc] initWithIdentifier:identifier] autorelease];
}
+ (UTType*)typeWithFilenameExtension:(NSString*)filenameExtension
                    conformingToType:(UTType*)supertype {
  if (![supertype isEqual:UTTypeData]) return nil;
  NSString* identifier = [registered() objectForKey:[filenameExtension lowercaseString]];
  if (identifier == nil) identifier = [@"dyn." stringByAppendingString:filenameExtension];
  return [[[UTType alloc] initWithIdentifier:identifier] autorelease];
}
- (NSString*)identifier {
  return _identifier;
}
- (BOOL)isDynamic {
  return [_identifier hasPrefix:@"dyn."];
}
- (BOOL)isEqual:(id)other {
  return [other isKindOfClass:[UTType class]] && [[other identifier] isEqualToString:_identifier];
}
- (NSUInteger)hash {
  return [_identifier hash];
}
- (BOOL)conformsToType:(UTType*)type {
  if ([self isEqual:type]) return YES;
  return [type isEqual:UTTypeData] && ![self isEqual:UTTypeFolder];
}
@end
