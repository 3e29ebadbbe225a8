// The extension as the system meets it: the principal class made by name through the Objective-C
// runtime, every method called with blocks, kestrune-service at the other end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "platform/StandIn.h"
#include "tests/macos/Answers.h"
#include "tests/macos/SystemTesting.h"
#include "tests/support/Waiting.h"

namespace kestrune::macos {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

TEST_F(SystemTest, ThePrincipalClassImplementsTheThreeProtocols) {
  Class principal = NSClassFromString(@"FileProviderExtension");
  ASSERT_NE(principal, Nil);
  for (NSString* const protocol :
       {@"NSFileProviderReplicatedExtension", @"NSFileProviderCustomAction",
        @"NSFileProviderPartialContentFetching"}) {
    EXPECT_TRUE([principal conformsToProtocol:NSProtocolFromString(protocol)])
        << [protocol UTF8String];
  }
}

using SystemDeathTest = SystemTest;

TEST_F(SystemDeathTest, InitWithoutADomainEndsTheProcess) {
  const char* classes[] = {"FileProviderExtension", "FileProviderItem", "FileProviderEnumerator"};
  for (const char* name : classes) {
    EXPECT_DEATH([[NSClassFromString(string(name)) alloc] performSelector:@selector(init)],
                 std::string("Use of unimplemented initializer 'init\\(\\)' for class "
                             "'KestruneFileProvider\\.") +
                     name);
  }
}

TEST_F(SystemTest, StartingWritesOneLineWithItsValuesRedacted) {
  const auto lines = standin::logLines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].subsystem, "com.orvanta.kestrune.fileprovider");
  EXPECT_EQ(lines[0].category, "extension");
  EXPECT_EQ(lines[0].format, "init domain=%s apiURL=%s token=%s");
  EXPECT_EQ(lines[0].message, "init domain=<private> apiURL=<private> token=<private>");
}

TEST_F(SystemTest, TheRootIsAnsweredBeforeTheCallReturns) {
  const auto answer = std::make_shared<Answer>();
  NSProgress* const progress = lookUp(NSFileProviderRootContainerItemIdentifier, answer);
  EXPECT_EQ(answer->calls, 1);
  EXPECT_EQ([progress totalUnitCount], 1);
  EXPECT_EQ([progress completedUnitCount], 1);
  ASSERT_TRUE(answer->item.has_value());
  EXPECT_EQ(answer->item->identifier, "NSFileProviderRootContainerItemIdentifier");
  EXPECT_EQ(answer->item->parent, "NSFileProviderRootContainerItemIdentifier");
  EXPECT_EQ(answer->item->filename, "Kestrune");
  EXPECT_EQ(answer->item->type, "public.folder");
  EXPECT_EQ(answer->item->size, std::nullopt);
}

TEST_F(SystemTest, AnItemShowsAllItsProperties) {
  write("Docs/caf\xC3\xA9 report.pdf", "12345");
  setTime("Docs/caf\xC3\xA9 report.pdf", 1'700'000'000);
  const auto answer = std::make_shared<Answer>();
  NSProgress* const progress = lookUp(@"/Docs/caf\u00e9 report.pdf", answer);
  EXPECT_EQ(answersOf(answer), 1);
  ASSERT_TRUE(answer->item.has_value()) << answer->error->description;
  const ItemText& item = *answer->item;
  EXPECT_EQ(item.identifier, "/Docs/caf\xC3\xA9 report.pdf");
  EXPECT_EQ(item.parent, "/Docs");
  EXPECT_EQ(item.filename, "caf\xC3\xA9 report.pdf");
  EXPECT_EQ(item.type, "com.adobe.pdf");
  EXPECT_EQ(item.capabilities, 47U);
  EXPECT_EQ(item.size, 5);
  EXPECT_EQ(item.modified, 1'700'000'000.0);
  EXPECT_EQ(item.created, 1'700'000'000.0);
  EXPECT_EQ(item.policy, 0);
  EXPECT_EQ(item.version, "1700000000-5");
  EXPECT_EQ(item.metadataVersion, item.version);
  EXPECT_TRUE(support::waitUntil([&] { return [progress completedUnitCount] == 1; }));
}

TEST_F(SystemTest, UnregisteredFilenameExtensionsAreGenericData) {
  write("a.unheardof", "");
  write("b", "");
  for (NSString* const identifier : {@"/a.unheardof", @"/b"}) {
    const auto answer = std::make_shared<Answer>();
    lookUp(identifier, answer);
    EXPECT_EQ(answersOf(answer), 1);
    ASSERT_TRUE(answer->item.has_value());
    EXPECT_EQ(answer->item->type, "public.data");
  }
}

TEST_F(SystemTest, AMissingItemIsTheFileProvidersNoSuchItem) {
  const auto answer = std::make_shared<Answer>();
  lookUp(@"/Docs/nothing", answer);
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_EQ(answer->item, std::nullopt);
  ASSERT_TRUE(answer->error.has_value());
  ASSERT_TRUE(answer->error.has_value());
  EXPECT_EQ(answer->error->domain, "NSFileProviderErrorDomain");
  EXPECT_EQ(answer->error->code, -1005);
  EXPECT_EQ(answer->error->userInfoCount, 0U);
}

TEST_F(SystemTest, ServiceErrorsAreReadable) {
  useToken("another");
  const auto refused = std::make_shared<Answer>();
  lookUp(@"/Docs", refused);
  EXPECT_EQ(answersOf(refused), 1);
  ASSERT_TRUE(refused->error.has_value());
  EXPECT_EQ(refused->error->domain, "KestruneAPI.APIError");
  EXPECT_EQ(refused->error->code, 0);
  EXPECT_THAT(refused->error->description, HasSubstr("HTTP 401"));
  stopService();
  const auto unreachable = std::make_shared<Answer>();
  lookUp(@"/Docs", unreachable);
  EXPECT_EQ(answersOf(unreachable), 1);
  ASSERT_TRUE(unreachable->error.has_value());
  EXPECT_EQ(unreachable->error->domain, "NSURLErrorDomain");
  EXPECT_EQ(unreachable->error->code, -1004);
}

TEST_F(SystemTest, ContentsArriveAsALocalFile) {
  const std::string contents = randomBytes(5U << 20U);
  write("Docs/movie.bin", contents);
  const auto answer = std::make_shared<Answer>();
  NSProgress* const progress = fetch(@"/Docs/movie.bin", answer);
  EXPECT_EQ([progress totalUnitCount], 100);
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_EQ(answer->error, std::nullopt);
  ASSERT_TRUE(answer->path.has_value());
  EXPECT_TRUE(support::contentsOf(*answer->path) == contents);
  EXPECT_EQ(answer->item->identifier, "/Docs/movie.bin");
  EXPECT_EQ(answer->item->size, 5 << 20);
  EXPECT_TRUE(support::waitUntil([&] { return [progress completedUnitCount] == 100; }));
}

TEST_F(SystemTest, AFailedFetchBringsNeitherFileNorItem) {
  const auto answer = std::make_shared<Answer>();
  fetchPartially(@"/Docs/nothing", NSMakeRange(0, 10), answer);
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_EQ(answer->path, std::nullopt);
  EXPECT_EQ(answer->item, std::nullopt);
  EXPECT_EQ(answer->location, 0U);
  EXPECT_EQ(answer->length, 0U);
  ASSERT_TRUE(answer->error.has_value());
  EXPECT_EQ(answer->error->code, -1005);
}

TEST_F(SystemTest, ARangeArrivesInASparseFileOfTheWholeLength) {
  const std::string contents = randomBytes(8U << 20U);
  write("Docs/movie.bin", contents);
  const auto answer = std::make_shared<Answer>();
  NSProgress* const progress =
      fetchPartially(@"/Docs/movie.bin", NSMakeRange((3U << 20U) + 1, 1000), answer, 1U << 20U);
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_EQ(answer->error, std::nullopt);
  ASSERT_TRUE(answer->path.has_value());
  EXPECT_EQ(answer->location, 3U << 20U);
  EXPECT_EQ(answer->flags, 0U);
  EXPECT_GE(answer->length, 1001U);
  EXPECT_EQ(fs::file_size(*answer->path), contents.size());
  EXPECT_TRUE(support::contentsOf(*answer->path).substr(answer->location, answer->length) ==
              contents.substr(answer->location, answer->length));
  EXPECT_TRUE(support::waitUntil(
      [&] { return [progress completedUnitCount] == [progress totalUnitCount]; }));
  EXPECT_EQ([progress totalUnitCount], 1000);
}

TEST_F(SystemTest, FoldersAndFilesAreCreated) {
  const auto folder = std::make_shared<Answer>();
  create(@"/Docs", @"new folder", UTTypeFolder, nil, folder);
  EXPECT_EQ(answersOf(folder), 1);
  ASSERT_TRUE(folder->item.has_value()) << folder->error->description;
  EXPECT_EQ(folder->item->identifier, "/Docs/new folder");
  EXPECT_EQ(folder->item->type, "public.folder");
  EXPECT_TRUE(fs::is_directory(tree("Docs/new folder")));

  const auto file = std::make_shared<Answer>();
  const auto local = files.write("local name", "contents");
  NSProgress* const progress =
      create(NSFileProviderRootContainerItemIdentifier, @"r\u00e9sum\u00e9.txt",
             [UTType typeWithIdentifier:@"public.plain-text"], string(local), file);
  EXPECT_EQ(answersOf(file), 1);
  ASSERT_TRUE(file->item.has_value()) << file->error->description;
  EXPECT_EQ(file->item->identifier, "/r\xC3\xA9sum\xC3\xA9.txt");
  EXPECT_EQ(file->item->size, 8);
  EXPECT_EQ(file->stillPending, 0U);
  EXPECT_FALSE(file->shouldFetch);
  EXPECT_EQ(support::contentsOf(tree("r\xC3\xA9sum\xC3\xA9.txt")), "contents");
  EXPECT_EQ([progress completedUnitCount], 100);
}

TEST_F(SystemTest, ALargeFileIsCreatedInParts) {
  const std::string contents = randomBytes((16U << 20U) + 5);
  const auto local = files.write("large", contents);
  const auto answer = std::make_shared<Answer>();
  create(@"/Docs", @"large.bin", nil, string(local), answer);
  EXPECT_EQ(answersOf(answer), 1);
  ASSERT_TRUE(answer->item.has_value()) << answer->error->description;
  EXPECT_TRUE(support::contentsOf(tree("Docs/large.bin")) == contents);
}

TEST_F(SystemTest, ATemplateWithoutATypeIsAFile) {
  const auto local = files.write("local", "x");
  BareItem* const item = [[[BareItem alloc] init] autorelease];
  item->identifier = @"tmp";
  item->parent = @"/Docs";
  item->name = @"bare";
  const auto answer = std::make_shared<Answer>();
  createFrom(item, string(local), answer);
  EXPECT_EQ(answersOf(answer), 1);
  ASSERT_TRUE(answer->item.has_value());
  EXPECT_EQ(support::contentsOf(tree("Docs/bare")), "x");
}

TEST_F(SystemTest, ClutterIsRefusedBeforeTheCallReturns) {
  const auto answer = std::make_shared<Answer>();
  create(@"/Docs", @".DS_Store", nil, nil, answer);
  EXPECT_EQ(answer->calls, 1);
  ASSERT_TRUE(answer->error.has_value());
  EXPECT_EQ(answer->error->domain, "NSFileProviderErrorDomain");
  EXPECT_EQ(answer->error->code, -1005);
  EXPECT_EQ(answer->stillPending, 0U);
}

TEST_F(SystemTest, AnItemIsRenamedMovedAndRewritten) {
  write("Docs/old.txt", "old");
  write("Other/keep", "");
  const auto local = files.write("new contents", "new");
  const auto answer = std::make_shared<Answer>();
  modify(@"/Docs/old.txt", @"/Other", @"new.txt",
         NSFileProviderItemFilename | NSFileProviderItemParentItemIdentifier |
             NSFileProviderItemContents,
         string(local), answer);
  EXPECT_EQ(answersOf(answer), 1);
  ASSERT_TRUE(answer->item.has_value()) << answer->error->description;
  EXPECT_EQ(answer->item->identifier, "/Other/new.txt");
  EXPECT_FALSE(fs::exists(tree("Docs/old.txt")));
  EXPECT_EQ(support::contentsOf(tree("Other/new.txt")), "new");
}

TEST_F(SystemTest, AnItemIsDeleted) {
  write("Docs/gone", "x");
  for (int i = 0; i < 2; ++i) {  // the second time it is gone already
    const auto answer = std::make_shared<Answer>();
    remove(@"/Docs/gone", answer);
    EXPECT_EQ(answersOf(answer), 1);
    EXPECT_EQ(answer->error, std::nullopt);
  }
  EXPECT_FALSE(fs::exists(tree("Docs/gone")));
}

TEST_F(SystemTest, LinksAreCopiedOnTheMainThread) {
  const auto answer = std::make_shared<Answer>();
  act(@"com.orvanta.kestrune.copy-share-link", @[ @"/Docs/a b", @"/Docs" ], answer);
  EXPECT_TRUE(standin::serveMainQueueUntil([&] { return answer->calls > 0; }));
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_EQ(answer->error, std::nullopt);
  EXPECT_EQ(standin::pasteboardText(), address() + "/open/Docs/a%20b\n" + address() + "/open/Docs");
  EXPECT_TRUE(standin::pasteboardWasTouchedOnMainThreadOnly());
}

TEST_F(SystemTest, DownloadNowPinsAndAsksForTheWholeItem) {
  write("Docs/a", "x");
  const auto answer = std::make_shared<Answer>();
  NSProgress* const progress =
      act(@"com.orvanta.kestrune.download-now", @[ @"/Docs/a", @"/Docs/b" ], answer);
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_EQ(answer->error, std::nullopt);
  const auto whole = [](const char* identifier) {
    return standin::ManagerCall{"main", "download", identifier, NSNotFound, 0};
  };
  EXPECT_THAT(standin::managerCalls(), ElementsAre(whole("/Docs/a"), whole("/Docs/b")));
  EXPECT_EQ([progress totalUnitCount], 2);
  EXPECT_EQ([progress completedUnitCount], 2);
  const auto looked = std::make_shared<Answer>();
  lookUp(@"/Docs/a", looked);
  EXPECT_EQ(answersOf(looked), 1);
  EXPECT_EQ(looked->item->policy, 3);
}

TEST_F(SystemTest, AManagersErrorComesOutAsItWentIn) {
  standin::failCallsAbout("/Docs/a", -2008,
                          "\xE2\x80\x9C"
                          "a\xE2\x80\x9D is in use.");
  const auto answer = std::make_shared<Answer>();
  act(@"com.orvanta.kestrune.make-online-only", @[ @"/Docs/a", @"/Docs/b" ], answer);
  EXPECT_EQ(answersOf(answer), 1);
  ASSERT_TRUE(answer->error.has_value());
  EXPECT_EQ(answer->error->domain, "NSFileProviderErrorDomain");
  EXPECT_EQ(answer->error->code, -2008);
  EXPECT_EQ(answer->error->description, "\xE2\x80\x9C"
                                        "a\xE2\x80\x9D is in use.");
  EXPECT_EQ(answer->error->userInfoCount, 2U);  // what the platform put there is still there
  const standin::ManagerCall evictions[] = {{"main", "evict", "/Docs/a"},
                                            {"main", "evict", "/Docs/b"}};
  EXPECT_THAT(standin::managerCalls(), testing::ElementsAreArray(evictions));
  const auto line = standin::logLines().back();
  EXPECT_EQ(line.message, "customAction item=/Docs/a err=\xE2\x80\x9C"
                          "a\xE2\x80\x9D is in use.");
}

TEST_F(SystemTest, TheActionsOfThePropertyListDoWhatTheirTitlesSay) {
  NSDictionary* const list = [NSDictionary
      dictionaryWithContentsOfFile:@KESTRUNE_BUNDLE_BINARY_DIR "/Extension-Info.plist"];
  NSArray* const actions =
      [[list objectForKey:@"NSExtension"] objectForKey:@"NSExtensionFileProviderActions"];
  ASSERT_EQ([actions count], 3U);
  for (NSDictionary* const action in actions) {
    const auto answer = std::make_shared<Answer>();
    act([action objectForKey:@"NSExtensionFileProviderActionIdentifier"], @[ @"/Docs/a" ], answer);
    EXPECT_TRUE(standin::serveMainQueueUntil([&] { return answer->calls > 0; }));
    EXPECT_EQ(answer->error, std::nullopt);
  }
  EXPECT_EQ(standin::pasteboardText(), address() + "/open/Docs/a");
  EXPECT_THAT(standin::managerCalls(),
              ElementsAre(standin::ManagerCall{"main", "evict", "/Docs/a"},
                          standin::ManagerCall{"main", "download", "/Docs/a", NSNotFound, 0}));
}

TEST_F(SystemTest, CancellingAFetchStillAnswersOnce) {
  write("Docs/movie.bin", randomBytes(5U << 20U));
  const auto answer = std::make_shared<Answer>();
  NSProgress* const progress = fetch(@"/Docs/movie.bin", answer);
  [progress cancel];
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_TRUE([progress isCancelled]);
}

TEST_F(SystemTest, WithoutAManagerActionsAreRefused) {
  standin::setHasManagers(false);
  const auto answer = std::make_shared<Answer>();
  act(@"com.orvanta.kestrune.download-now", @[ @"/Docs" ], answer);
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_EQ(answer->error->domain, "NSFileProviderErrorDomain");
  EXPECT_EQ(answer->error->code, -2001);
}

TEST_F(SystemTest, AFolderIsEnumeratedInOneBatch) {
  write("Few/a", "1");
  write("Few/b.png", "22");
  write("Few/.DS_Store", "clutter");
  ListeningObserver* const observer = enumerateItems(@"/Few");
  EXPECT_EQ(observer->batches, 1);
  EXPECT_EQ(observer->finishes, 1);
  EXPECT_FALSE(observer->hadPage);
  std::vector<std::string> identifiers;
  for (const auto& item : observer->items) identifiers.push_back(item.identifier);
  EXPECT_THAT(identifiers, UnorderedElementsAre("/Few/a", "/Few/b.png"));
}

TEST_F(SystemTest, TheWorkingSetAndTheTrashAreEmpty) {
  for (NSString* const container : {NSFileProviderWorkingSetContainerItemIdentifier,
                                    NSFileProviderTrashContainerItemIdentifier}) {
    ListeningObserver* const observer = enumerateItems(container);
    EXPECT_EQ(observer->batches, 0);
    EXPECT_EQ(observer->finishes, 1);
    EXPECT_EQ(observer->error, std::nullopt);
  }
}

TEST_F(SystemTest, AFailedEnumerationFinishesWithTheError) {
  ListeningObserver* const observer = enumerateItems(@"/nowhere");
  EXPECT_EQ(observer->finishes, 1);
  ASSERT_TRUE(observer->error.has_value());
  EXPECT_EQ(observer->error->domain, "KestruneAPI.APIError");
}

TEST_F(SystemTest, ChangesAreReportedSinceTheAnchor) {
  write("Docs/a", "1");
  write("Docs/b", "1");
  enumerateItems(@"/Docs");
  EXPECT_EQ(currentAnchor(@"/Docs"), "initial");
  ListeningObserver* const unchanged = enumerateChanges(@"/Docs", "initial");
  EXPECT_EQ(unchanged->anchor, "initial");
  EXPECT_EQ(unchanged->batches, 0);
  fs::remove(tree("Docs/a"));
  write("Docs/c", "1");
  storage.writeShared("invalidation-token.txt", "second\n");
  ListeningObserver* const changed = enumerateChanges(@"/Docs", "initial");
  EXPECT_EQ(changed->finishes, 1);
  EXPECT_EQ(changed->anchor, "second");
  EXPECT_FALSE(changed->moreComing);
  EXPECT_THAT(changed->deleted, ElementsAre("/Docs/a"));
  ASSERT_EQ(changed->items.size(), 1U);
  EXPECT_EQ(changed->items[0].identifier, "/Docs/c");
  EXPECT_EQ(currentAnchor(@"/Docs"), "second");
}

TEST_F(SystemTest, AfterInvalidationUploadsFailAndListingsWork) {
  write("Docs/a", "x");
  [extension invalidate];
  const auto created = std::make_shared<Answer>();
  create(@"/Docs", @"b", nil, string(files.write("local", "x")), created);
  EXPECT_EQ(answersOf(created), 1);
  ASSERT_TRUE(created->error.has_value());
  EXPECT_EQ(created->error->domain, "NSURLErrorDomain");
  EXPECT_EQ(created->error->code, -999);
  const auto looked = std::make_shared<Answer>();
  lookUp(@"/Docs/a", looked);
  EXPECT_EQ(answersOf(looked), 1);
  EXPECT_TRUE(looked->item.has_value());
}

TEST_F(SystemTest, ManyCallsAtOnceAreAnsweredOnceEach) {
  for (int i = 0; i < 40; ++i) write("Many/" + std::to_string(i), std::to_string(i));
  std::vector<AnswerPtr> answers;
  for (int i = 0; i < 40; ++i) {
    NSString* const identifier = string("/Many/" + std::to_string(i));
    answers.push_back(std::make_shared<Answer>());
    lookUp(identifier, answers.back());
    answers.push_back(std::make_shared<Answer>());
    fetch(identifier, answers.back());
  }
  for (const auto& answer : answers) {
    EXPECT_EQ(answersOf(answer), 1);
    EXPECT_EQ(answer->error, std::nullopt);
  }
}

TEST_F(SystemTest, NothingKeepsWhatTheSystemHandedOver) {
  write("Docs/a", "x");
  AnswerPtr answer = std::make_shared<Answer>();
  ListeningObserver* const observer = [[ListeningObserver alloc] init];
  @autoreleasepool {
    lookUp(@"/Docs/a", answer);
    lookUp(@"/Docs/nothing", answer);
    EXPECT_TRUE(support::waitUntil([&] { return answer->calls == 2; }));
    enumerateItemsFor(observer, @"/Docs");
    EXPECT_TRUE(support::waitUntil([&] { return [observer hasFinished]; }));
  }
  // The handlers' last owners are tasks, which may outlive the answer by a moment.
  EXPECT_TRUE(support::waitUntil([&] { return answer.use_count() == 1; }));
  EXPECT_TRUE(support::waitUntil([&] { return [observer retainCount] == 1; }));
  [observer release];
}

TEST_F(SystemTest, TheExtensionMayGoWhileItsWorkGoesOn) {
  write("Docs/a", "x");
  const auto answer = std::make_shared<Answer>();
  lookUp(@"/Docs/a", answer);
  releaseExtension();
  EXPECT_EQ(answersOf(answer), 1);
  EXPECT_TRUE(answer->item.has_value());
}

TEST_F(SystemTest, AnIdentifierThatIsNoOrdinaryTextBreaksNothing) {
  const unichar lone[] = {'/', 0xD800};
  NSString* const identifiers[] = {@"", @"/", [NSString stringWithCharacters:lone length:2],
                                   @"/Docs/../../etc/passwd", string(std::string(5000, 'x'))};
  for (NSString* const identifier : identifiers) {
    const auto answer = std::make_shared<Answer>();
    lookUp(identifier, answer);
    EXPECT_EQ(answersOf(answer), 1);
    EXPECT_NE(answer->error.has_value(), answer->item.has_value());
  }
}

}  // namespace
}  // namespace kestrune::macos
