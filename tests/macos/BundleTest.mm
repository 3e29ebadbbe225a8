// The property lists of the bundles: well-formed, and what the system looks for in them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#import <Foundation/Foundation.h>

#include <cstdlib>
#include <string>

#include "tests/macos/Answers.h"

namespace kestrune::macos {
namespace {

using testing::ElementsAre;

const std::string kBundle = KESTRUNE_SOURCE_DIR "/src/macos/bundle/";
const std::string kFilledIn = KESTRUNE_BUNDLE_BINARY_DIR "/";

struct BundleTest : testing::Test {
  ~BundleTest() override { [pool drain]; }

  static NSDictionary* propertyList(const std::string& path) {
    NSDictionary* const list = [NSDictionary dictionaryWithContentsOfFile:string(path)];
    EXPECT_NE(list, nil) << path;
    return list;
  }
  static std::string text(NSDictionary* list, NSString* key) {
    NSString* const value = [list objectForKey:key];
    return value == nil ? "nil" : [value UTF8String];
  }
  static NSDictionary* extension() {
    return [propertyList(kFilledIn + "Extension-Info.plist") objectForKey:@"NSExtension"];
  }

  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
};

TEST_F(BundleTest, PropertyListsAreWellFormed) {
  for (const auto& file : {kFilledIn + "Extension-Info.plist", kFilledIn + "App-Info.plist",
                           kBundle + "Extension.entitlements"}) {
    EXPECT_EQ(std::system(("plistutil -i '" + file + "' -o /dev/null -f bin").c_str()), 0) << file;
  }
}

TEST_F(BundleTest, TheExtensionPointAndThePrincipalClassAreNamed) {
  NSDictionary* const list = extension();
  EXPECT_EQ(text(list, @"NSExtensionPointIdentifier"), "com.apple.fileprovider-nonui");
  NSString* const principal = [list objectForKey:@"NSExtensionPrincipalClass"];
  EXPECT_NE(NSClassFromString(principal), Nil) << [principal UTF8String];
  EXPECT_TRUE([[list objectForKey:@"NSExtensionFileProviderSupportsEnumeration"] boolValue]);
}

TEST_F(BundleTest, EveryActionHasATitleAndARuleAndAnIdentifierThatTheExtensionKnows) {
  std::vector<std::string> identifiers, titles;
  for (NSDictionary* const action in [extension() objectForKey:@"NSExtensionFileProviderActions"]) {
    identifiers.push_back(text(action, @"NSExtensionFileProviderActionIdentifier"));
    titles.push_back(text(action, @"NSExtensionFileProviderActionName"));
    NSPredicate* const rule = [NSPredicate
        predicateWithFormat:[action objectForKey:@"NSExtensionFileProviderActionActivationRule"]];
    EXPECT_TRUE([rule evaluateWithObject:@{@"fileproviderItems" : @[ @"an item" ]}]);
    EXPECT_FALSE([rule evaluateWithObject:@{@"fileproviderItems" : @[]}]);
  }
  EXPECT_THAT(identifiers, ElementsAre("com.orvanta.kestrune.copy-share-link",
                                       "com.orvanta.kestrune.make-online-only",
                                       "com.orvanta.kestrune.download-now"));
  EXPECT_THAT(titles, ElementsAre("Copy Web Link", "Make Online-Only", "Download Now and Keep"));
}

TEST_F(BundleTest, TheExtensionBelongsToTheAppAndHasItsVersion) {
  NSDictionary* const app = propertyList(kFilledIn + "App-Info.plist");
  NSDictionary* const plugIn = propertyList(kFilledIn + "Extension-Info.plist");
  EXPECT_TRUE([string(text(plugIn, @"CFBundleIdentifier"))
      hasPrefix:[string(text(app, @"CFBundleIdentifier")) stringByAppendingString:@"."]]);
  for (NSString* const key :
       {@"CFBundleVersion", @"CFBundleShortVersionString", @"LSMinimumSystemVersion"}) {
    EXPECT_EQ(text(app, key), text(plugIn, key));
    EXPECT_THAT(text(app, key), testing::MatchesRegex("[0-9]+\\.[0-9.]+"));
  }
  EXPECT_EQ(text(plugIn, @"CFBundlePackageType"), "XPC!");
  EXPECT_EQ(text(app, @"CFBundlePackageType"), "APPL");
}

TEST_F(BundleTest, TheSandboxLetsThroughWhatTheExtensionNeedsAndNoMore) {
  NSDictionary* const entitlements = propertyList(kBundle + "Extension.entitlements");
  EXPECT_EQ([entitlements count], 4U);
  for (NSString* const key :
       {@"com.apple.security.app-sandbox", @"com.apple.security.files.user-selected.read-write",
        @"com.apple.security.network.client"}) {
    EXPECT_TRUE([[entitlements objectForKey:key] boolValue]) << [key UTF8String];
  }
  NSArray* const shared = [entitlements
      objectForKey:@"com.apple.security.temporary-exception.files.home-relative-path.read-write"];
  ASSERT_EQ([shared count], 1U);
  EXPECT_EQ(std::string([[shared objectAtIndex:0] UTF8String]),
            "/Library/Application Support/Kestrune/");
}

}  // namespace
}  // namespace kestrune::macos
