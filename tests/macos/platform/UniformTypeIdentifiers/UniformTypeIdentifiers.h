// Uniform types, as far as src/macos uses them. The stand-in knows the folder and data types, and as
// many filename extensions as the tests look at.
#pragma once

#import <Foundation/Foundation.h>

@interface UTType : NSObject {
  NSString* _identifier;
}
/// The type of that name; nil if there is none.
+ (UTType*)typeWithIdentifier:(NSString*)identifier;
/// The preferred type of a filename extension that conforms to `supertype`; on the platform a made-up
/// ("dynamic") one where none is registered.
+ (UTType*)typeWithFilenameExtension:(NSString*)filenameExtension
                    conformingToType:(UTType*)supertype;
- (NSString*)identifier;
/// Whether the type is one that the platform made up.
- (BOOL)isDynamic;
- (BOOL)conformsToType:(UTType*)type;
@end

#ifdef __cplusplus
extern "C" {
#endif
// The platform has constants; here they are made on first use, because nothing says which comes first,
// a source's static objects or its classes.
UTType* standInFolderType(void);
UTType* standInDataType(void);
#define UTTypeFolder standInFolderType()
#define UTTypeData standInDataType()
#ifdef __cplusplus
}
#endif
