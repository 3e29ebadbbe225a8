// The small values, errors, items and progress objects of the two sides, turned into each other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

#include "macos/Errors.h"
#include "macos/FileProviderItem.h"
#include "macos/Progress.h"
#include "macos/Retained.h"
#include "macos/Values.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/macos/Answers.h"

/// A text with lone surrogates, as the platform's strings may be. GNUstep makes none itself.
@interface BrokenString : NSString
@end

@implementation BrokenString
- (NSUInteger)length {
  return 6;
}
- (unichar)characterAtIndex:(NSUInteger)index {
  const unichar units[] = {'a', 0xD83D, 0xDE00, 0xD800, 'b', 0xDC00};
  return units[index];
}
- (NSData*)dataUsingEncoding:(NSStringEncoding)encoding {
  (void)encoding;
  return nil;
}
@end

/// A point in time that is none.
@interface BrokenDate : NSDate
@end

@implementation BrokenDate
- (instancetype)init {
  return self;  // the cluster's own would look at the number
}
- (NSTimeInterval)timeIntervalSinceReferenceDate {
  return std::nan("");
}
@end

/// Notes the new values of what it observes.
@interface CountingObserver : NSObject {
 @public
  std::vector<long long> seen;
}
@end

@implementation CountingObserver
- (void)observeValueForKeyPath:(NSString*)keyPath
                      ofObject:(id)object
                        change:(NSDictionary*)change
                       context:(void*)context {
  (void)keyPath, (void)object, (void)context;
  seen.push_back([[change objectForKey:NSKeyValueChangeNewKey] longLongValue]);
}
@end

namespace kestrune::macos {
namespace {

using namespace std::string_literals;

struct BridgeTest : testing::Test {
  ~BridgeTest() override { [pool drain]; }
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
};

TEST_F(BridgeTest, TextsKeepEveryCharacter) {
  for (const auto& text : {""s, "a"s, "caf\xC3\xA9"s, "cafe\xCC\x81"s, "\xF0\x9F\x98\x80"s, "a\0b"s,
                           "line\nbreak"s, "\xEF\xBF\xBD"s}) {
    EXPECT_EQ(textFrom(toPlatform(text)), text);
  }
  EXPECT_EQ([toPlatform("a\0b"s) length], 3U);
  EXPECT_EQ(textFrom(nil), "");
}

TEST_F(BridgeTest, BytesThatAreNoTextBecomeReplacementCharacters) {
  EXPECT_EQ(textFrom(toPlatform("a\xFF"
                                "b\xC3"s)),
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD");
  EXPECT_EQ(textFrom(toPlatform("\xF0\x9F\x98\x80\xF0\x9F\x98"s)),
            "\xF0\x9F\x98\x80\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST_F(BridgeTest, LoneSurrogatesBecomeReplacementCharacters) {
  EXPECT_EQ(textFrom([[[BrokenString alloc] init] autorelease]), "a\xF0\x9F\x98\x80\xEF\xBF\xBD"
                                                                 "b\xEF\xBF\xBD");
}

TEST_F(BridgeTest, ReservedIdentifiersAreMapped) {
  const struct {
    const char* ours;
    ::NSFileProviderItemIdentifier platforms;
  } cases[] = {
      {platform::NSFileProviderRootContainerItemIdentifier,
       ::NSFileProviderRootContainerItemIdentifier},
      {platform::NSFileProviderWorkingSetContainerItemIdentifier,
       ::NSFileProviderWorkingSetContainerItemIdentifier},
      {platform::NSFileProviderTrashContainerItemIdentifier,
       ::NSFileProviderTrashContainerItemIdentifier},
      {"/Docs/\xC3\xA9", string("/Docs/\xC3\xA9")},
  };
  for (const auto& [ours, platforms] : cases) {
    EXPECT_EQ(identifierFrom(platforms), ours);
    EXPECT_TRUE([identifierToPlatform(ours) isEqualToString:platforms]) << ours;
  }
  EXPECT_THAT(identifiersFrom(@[ @"/b", @"/a" ]), testing::ElementsAre("/b", "/a"));
}

TEST_F(BridgeTest, BytesAreKept) {
  const std::string bytes = "\0\xFF"
                            "a"s;
  EXPECT_EQ(bytesFrom(dataToPlatform(bytes)), bytes);
  EXPECT_EQ(bytesFrom(dataToPlatform("")), "");
  EXPECT_EQ(bytesFrom(nil), "");
}

TEST_F(BridgeTest, DatesAreKeptToTheMicrosecond) {
  for (const std::int64_t microseconds :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, std::int64_t{1'718'007'300'123'456},
        std::int64_t{4'102'444'800'000'001}, std::int64_t{-62'135'596'800'000'000}}) {
    const platform::Date date{std::chrono::microseconds(microseconds)};
    const auto back = dateFrom(toPlatform(date));
    ASSERT_TRUE(back.has_value());
    // A double holds microseconds for some centuries around 2001, then less.
    const auto off = std::abs((*back - date).count());
    EXPECT_LE(off, std::abs(microseconds) > std::int64_t{5'000'000'000'000'000} ? 8 : 0)
        << microseconds;
  }
  EXPECT_EQ([toPlatform(platform::Date()) timeIntervalSince1970], 0.0);
}

TEST_F(BridgeTest, DatesBeyondOursAreClamped) {
  const auto dateAt = [](double seconds) {
    return dateFrom([NSDate dateWithTimeIntervalSinceReferenceDate:seconds]);
  };
  EXPECT_EQ(dateAt(1e15), platform::Date::max());
  EXPECT_EQ(dateAt(-1e15), platform::Date::min());
  EXPECT_EQ(dateFrom([[[BrokenDate alloc] init] autorelease]), std::nullopt);
  EXPECT_EQ(dateFrom(nil), std::nullopt);
}

TEST_F(BridgeTest, LocalFilesKeepTheirNames) {
  for (const char* path : {"/tmp/a", "/tmp/a b#c?d%20e;f", "/tmp/caf\xC3\xA9", "/tmp/cafe\xCC\x81",
                           "/tmp/\xE8\xB3\x87\xE6\x96\x99"}) {
    NSURL* const url = fileToPlatform(path);
    EXPECT_TRUE([url isFileURL]);
    EXPECT_EQ(pathFrom(url), std::filesystem::path(path));
  }
  EXPECT_EQ(pathFrom(nil), std::nullopt);
  EXPECT_EQ(pathFrom([NSURL URLWithString:@"file:"]), std::nullopt);
  EXPECT_EQ(pathFrom([NSURL URLWithString:@"http://127.0.0.1/a"]), std::nullopt);
}

TEST_F(BridgeTest, VersionsAreKept) {
  const platform::NSFileProviderItemVersion version{"1-2", "\0x"s};
  EXPECT_EQ(versionFrom(toPlatform(version)), version);
  EXPECT_EQ(versionFrom(nil), std::nullopt);
}

TEST_F(BridgeTest, TypesAreThePlatformsOwn) {
  EXPECT_TRUE([toPlatform(platform::UTType::folder()) isEqual:UTTypeFolder]);
  EXPECT_TRUE([toPlatform(platform::UTType::data()) isEqual:UTTypeData]);
  EXPECT_TRUE([[toPlatform(platform::UTType::named("com.adobe.pdf")) identifier]
      isEqualToString:@"com.adobe.pdf"]);
  EXPECT_TRUE([toPlatform(platform::UTType::named("no such type")) isEqual:UTTypeData]);
  EXPECT_EQ(typeFrom([::UTType typeWithIdentifier:@"public.folder"]), platform::UTType::folder());
  EXPECT_EQ(typeFrom([::UTType typeWithIdentifier:@"public.data"]), platform::UTType::data());
  EXPECT_EQ(typeFrom([::UTType typeWithIdentifier:@"public.png"]),
            platform::UTType::named("public.png"));
  EXPECT_EQ(typeFrom(nil), std::nullopt);
}

TEST_F(BridgeTest, RequestsSayWhoAsks) {
  ::NSFileProviderRequest* const request = [[[::NSFileProviderRequest alloc] init] autorelease];
  request->_isFileViewerRequest = YES;
  request->_requestingExecutable = [fileToPlatform("/usr/bin/caf\xC3\xA9") retain];
  const auto ours = requestFrom(request);
  EXPECT_FALSE(ours.isSystemRequest);
  EXPECT_TRUE(ours.isFileViewerRequest);
  EXPECT_EQ(ours.requestingExecutable, "/usr/bin/caf\xC3\xA9");
  EXPECT_EQ(requestFrom(nil).requestingExecutable, std::nullopt);
}

TEST_F(BridgeTest, RangesAreClamped) {
  EXPECT_EQ(rangeFrom(NSMakeRange(3, 5)), (platform::NSRange{3, 5}));
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(rangeFrom(::NSRange{NSNotFound, ~NSUInteger{0}}), (platform::NSRange{kMost, kMost}));
  EXPECT_TRUE(NSEqualRanges(toPlatform(platform::NSRange{3, 5}), NSMakeRange(3, 5)));
}

TEST_F(BridgeTest, OurErrorsBecomeThePlatforms) {
  const platform::NSErrorPtr ours =
      std::make_shared<platform::NSError>("KestruneAPI.APIError", 0, "HTTP 404: nothing",
                                          platform::NSError::UserInfo{{"HTTPStatusCode", "404"}});
  ::NSError* const error = toPlatform(ours);
  EXPECT_TRUE([[error domain] isEqualToString:@"KestruneAPI.APIError"]);
  EXPECT_EQ([error code], 0);
  EXPECT_TRUE([[error localizedDescription] isEqualToString:@"HTTP 404: nothing"]);
  EXPECT_TRUE([[[error userInfo] objectForKey:@"HTTPStatusCode"] isEqualToString:@"404"]);
  EXPECT_EQ(toPlatform(platform::NSErrorPtr()), nil);
}

TEST_F(BridgeTest, FileProviderErrorsAreDescribedByThePlatform) {
  ::NSError* const error =
      toPlatform(platform::NSFileProviderError(platform::NSFileProviderError::noSuchItem).share());
  EXPECT_TRUE([[error domain] isEqualToString:NSFileProviderErrorDomain]);
  EXPECT_EQ([error code], -1005);
  EXPECT_EQ([[error userInfo] count], 0U);
}

TEST_F(BridgeTest, AnErrorThatPassesThroughStaysTheSameObject) {
  ::NSError* const error = [::NSError errorWithDomain:@"d"
                                                 code:-7
                                             userInfo:@{
                                               NSLocalizedDescriptionKey : @"why",
                                               @"k" : @3
                                             }];
  const platform::NSErrorPtr ours = errorFrom(error);
  EXPECT_EQ(ours->domain(), "d");
  EXPECT_EQ(ours->code(), -7);
  EXPECT_EQ(ours->localizedDescription(), "why");
  EXPECT_EQ(toPlatform(ours), error);
  EXPECT_EQ(toPlatform(ours->share()), error);
  EXPECT_EQ(errorFrom(nil), nullptr);
}

TEST_F(BridgeTest, ATemplateIsCopied) {
  TemplateItem* const item = [[[TemplateItem alloc] init] autorelease];
  item->identifier = @"tmp";
  item->parent = ::NSFileProviderRootContainerItemIdentifier;
  item->name = @"n";
  item->type = UTTypeFolder;
  const auto ours = itemFrom(item);
  item->name = @"other";
  EXPECT_EQ(ours->itemIdentifier(), "tmp");
  EXPECT_EQ(ours->parentItemIdentifier(), platform::NSFileProviderRootContainerItemIdentifier);
  EXPECT_EQ(ours->filename(), "n");
  EXPECT_EQ(ours->contentType(), platform::UTType::folder());
  EXPECT_EQ(ours->documentSize(), std::nullopt);
}

TEST_F(BridgeTest, ATemplateNeedNotAnswerToOptionalProperties) {
  BareItem* const item = [[[BareItem alloc] init] autorelease];
  item->identifier = item->parent = item->name = @"x";
  const auto ours = itemFrom(item);
  EXPECT_EQ(ours->contentType(), std::nullopt);
  EXPECT_EQ(ours->documentSize(), std::nullopt);
  EXPECT_EQ(ours->contentModificationDate(), std::nullopt);
  EXPECT_EQ(ours->creationDate(), std::nullopt);
  EXPECT_EQ(ours->itemVersion(), std::nullopt);
}

/// An item that does nothing but be there.
class PlainItem final : public platform::NSFileProviderItem {
 public:
  platform::NSFileProviderItemIdentifier itemIdentifier() const override { return "/a"; }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override { return "/"; }
  std::string filename() const override { return "a"; }
};

TEST_F(BridgeTest, ItemsGoWithTheirPool) {
  const auto ours = std::make_shared<const PlainItem>();
  @autoreleasepool {
    EXPECT_NE(toPlatform(platform::NSFileProviderItemPtr(ours)), nil);
    EXPECT_EQ([toPlatform(std::vector<platform::NSFileProviderItemPtr>{ours, ours}) count], 2U);
    EXPECT_EQ(ours.use_count(), 4);
  }
  EXPECT_EQ(ours.use_count(), 1);
}

TEST_F(BridgeTest, AnItemWithoutOptionalPropertiesIsPlainData) {
  const ItemText item =
      *textOf(toPlatform(platform::NSFileProviderItemPtr(std::make_shared<PlainItem>())));
  EXPECT_EQ(item.type, "public.data");
  EXPECT_EQ(item.capabilities, 1U);
  EXPECT_EQ(item.size, std::nullopt);
  EXPECT_EQ(item.policy, 0);
  EXPECT_EQ(item.version, "");
}

TEST_F(BridgeTest, ErrorsThatPassThroughAreLetGo) {
  ::NSError* const error = [[::NSError alloc] initWithDomain:@"d" code:1 userInfo:@{}];
  @autoreleasepool {
    const platform::NSErrorPtr ours = errorFrom(error);
    EXPECT_GT([error retainCount], 1U);
    EXPECT_EQ(toPlatform(ours->share()), error);
  }
  EXPECT_EQ([error retainCount], 1U);
  [error release];
}

TEST_F(BridgeTest, BlocksAreLetGo) {
  const auto captured = std::make_shared<int>(0);
  @autoreleasepool {
    using Block = void (^)(void);
    std::function<void()> call;
    {
      const Block block = ^{
        ++*captured;
      };
      call = [kept = RetainedBlock<Block>(block)] { kept.get()(); };
    }
    auto copy = call;
    call = nullptr;
    copy();
    EXPECT_EQ(*captured, 1);
  }
  EXPECT_EQ(captured.use_count(), 1);
}

TEST_F(BridgeTest, ProgressIsShownFromItsPresentValueOn) {
  auto ours = std::make_shared<platform::NSProgress>(100);
  ours->setCompletedUnitCount(40);
  ::NSProgress* const display = [shown(ours) retain];
  EXPECT_EQ([display totalUnitCount], 100);
  EXPECT_EQ([display completedUnitCount], 40);
  ours->setTotalUnitCount(200);
  ours->setCompletedUnitCount(150);
  EXPECT_EQ([display totalUnitCount], 200);
  EXPECT_EQ([display completedUnitCount], 150);
  EXPECT_EQ([display fractionCompleted], 0.75);
  ours.reset();
  EXPECT_EQ([display completedUnitCount], 150);
  [display cancel];  // nobody is left to be cancelled
  EXPECT_TRUE([display isCancelled]);
  [display release];
}

TEST_F(BridgeTest, NeitherProgressKeepsTheOther) {
  auto ours = std::make_shared<platform::NSProgress>(2);
  ::NSProgress* display = nil;
  @autoreleasepool {
    display = [shown(ours) retain];
  }
  EXPECT_EQ([display retainCount], 2U);  // the test's, and that of what shows our counts
  const std::weak_ptr<platform::NSProgress> weak = ours;
  ours.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ([display retainCount], 1U);
  [display release];
}

TEST_F(BridgeTest, ObserversOfThePlatformsProgressHearOfEachChange) {
  const auto ours = std::make_shared<platform::NSProgress>(4);
  ::NSProgress* const display = shown(ours);
  CountingObserver* const observer = [[[CountingObserver alloc] init] autorelease];
  [display addObserver:observer
            forKeyPath:@"completedUnitCount"
               options:NSKeyValueObservingOptionNew
               context:nullptr];
  ours->setCompletedUnitCount(1);
  ours->setCompletedUnitCount(3);
  [display removeObserver:observer forKeyPath:@"completedUnitCount"];
  ours->setCompletedUnitCount(4);
  EXPECT_THAT(observer->seen, testing::ElementsAre(1, 3));
}

TEST_F(BridgeTest, CancellationReachesOurProgressOnce) {
  const auto ours = std::make_shared<platform::NSProgress>(1);
  int cancelled = 0;
  ours->setCancellationHandler([&cancelled] { ++cancelled; });
  ::NSProgress* const display = shown(ours);
  [display cancel];
  [display cancel];
  EXPECT_EQ(cancelled, 1);
  EXPECT_TRUE(ours->isCancelled());
}

TEST_F(BridgeTest, AProgressThatManyThreadsMoveEndsWhereItEnds) {
  for (int round = 0; round < 20; ++round) {
    auto ours = std::make_shared<platform::NSProgress>(400);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([ours] {
        for (int n = 0; n < 100; ++n) ours->addCompletedUnits(1);
      });
    }
    ::NSProgress* const display = shown(ours);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ([display completedUnitCount], 400);
  }
}

}  // namespace
}  // namespace kestrune::macos
