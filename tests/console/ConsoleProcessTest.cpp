// The programs themselves: kestrune-service over a small tree, and `kestrune` beside it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "tests/console/ConsoleProgram.h"
#include "tests/console/WholePrograms.h"
#include "tests/support/ServiceFixture.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using platform::Json;
using support::contentsOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

std::vector<std::string> textsOf(const Json& items, const char* key) {
  std::vector<std::string> texts;
  for (const auto& item : items) texts.push_back(item.at(key));
  return texts;
}

TEST_F(WholePrograms, BrowseAFolderAndLookUpItsItems) {
  ConsoleProgram console;
  const auto root =
      console.completion("item", R"(,"identifier":"NSFileProviderRootContainerItemIdentifier")");
  EXPECT_EQ(root["thread"], "caller");
  EXPECT_EQ(root["item"]["filename"], "Kestrune");
  EXPECT_EQ(root["progress"], (Json{{"total", 1}, {"completed", 0}}));
  const auto listing = console.call("enumerateItems", R"(,"container":"/Docs")");
  EXPECT_EQ(listing.front()["event"], "returned");
  EXPECT_EQ(listing.back()["event"], "settled");
  EXPECT_THAT(textsOf(ConsoleProgram::only(listing, "didEnumerateItems")["items"], "identifier"),
              UnorderedElementsAre("/Docs/a.txt", "/Docs/big.bin", "/Docs/Sub"));
  const auto file = console.completion("item", R"(,"identifier":"/Docs/a.txt")");
  EXPECT_EQ(file["thread"], "task");
  EXPECT_EQ(file["error"], nullptr);
  EXPECT_EQ(file["item"]["documentSize"], 6);
  EXPECT_EQ(file["item"]["parentIdentifier"], "/Docs");
  EXPECT_EQ(file["item"]["capabilities"], 47);
  const auto missing = console.completion("item", R"(,"identifier":"/Docs/nothing")");
  EXPECT_EQ(missing["item"], nullptr);
  EXPECT_EQ(missing["error"]["domain"], "NSFileProviderErrorDomain");
  EXPECT_EQ(missing["error"]["code"], -1005);
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
  EXPECT_EQ(console.program().errors(), "");
}

TEST_F(WholePrograms, TheFirstLineIsTheExtensionsOwn) {
  ConsoleProgram console({"--domain", "work", "--show-private"});
  console.program().closeInput();
  const auto line = console.readUntil("log");
  EXPECT_EQ(line["seq"], 1);
  EXPECT_EQ(line["id"], nullptr);
  EXPECT_EQ(line["category"], "extension");
  EXPECT_EQ(line["message"], "init domain=<private> apiURL=<private> token=<private>");
  EXPECT_EQ(line["arguments"], (Json{"work", address, "present"}));
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST_F(WholePrograms, ChangesShowAfterANewInvalidationToken) {
  ConsoleProgram console;
  console.call("enumerateItems", R"(,"container":"/Docs")");
  const auto before = console.completion("currentSyncAnchor", R"(,"container":"/Docs")");
  EXPECT_EQ(before["anchor"], "initial");
  fs::remove(tree("Docs/a.txt"));
  files.write("tree/Docs/new.txt", "new");

  const std::string fromInitial = R"(,"container":"/Docs","anchor":"initial")";
  const auto unchanged = console.call("enumerateChanges", fromInitial);
  EXPECT_EQ(unchanged.size(), 3U);
  EXPECT_EQ(ConsoleProgram::only(unchanged, "finishEnumeratingChanges")["thread"], "caller");

  ChildProgram invalidate("kestrune", {"invalidate"});
  EXPECT_EQ(invalidate.finish(), 0) << invalidate.errors();
  const auto changed = console.call("enumerateChanges", fromInitial);
  EXPECT_EQ(ConsoleProgram::only(changed, "didDeleteItems")["identifiers"], Json{"/Docs/a.txt"});
  EXPECT_THAT(textsOf(ConsoleProgram::only(changed, "didUpdateItems")["items"], "filename"),
              ElementsAre("new.txt"));
  const auto finish = ConsoleProgram::only(changed, "finishEnumeratingChanges");
  EXPECT_EQ(finish["anchor"].get<std::string>() + "\n",
            contentsOf(storage.shared() / "invalidation-token.txt"));
  EXPECT_EQ(finish["moreComing"], false);
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST_F(WholePrograms, FetchedContentsAreTheRemoteBytes) {
  ConsoleProgram console;
  const auto lines = console.call("fetchContents", R"(,"identifier":"/Docs/big.bin","watch":true)");
  const auto completion = ConsoleProgram::only(lines, "completion");
  ASSERT_EQ(completion["error"], nullptr);
  const fs::path file = completion["url"].get<std::string>();
  EXPECT_EQ(file.parent_path(), storage.temporary());
  EXPECT_TRUE(contentsOf(file) == big);
  EXPECT_EQ(completion["item"]["documentSize"], big.size());
  EXPECT_EQ(lines.back()["progress"], (Json{{"total", 100}, {"completed", 100}}));
  EXPECT_GE(std::count_if(lines.begin(), lines.end(),
                          [](const Json& line) { return line["event"] == "progress"; }),
            1);
  // Settled means that the store's queue has drained: nothing is left of the transfer.
  const Json status = Json::parse(contentsOf(storage.shared() / "sync-status.json"));
  EXPECT_EQ(status["transfers"], Json::array());
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
  EXPECT_THAT(storage.temporaryNames(), ElementsAre(file.filename().string()));
}

TEST_F(WholePrograms, CallsWrittenAtOnceAllSettle) {
  ConsoleProgram console;
  constexpr int kCalls = 200;
  std::string calls;
  for (int i = 0; i < kCalls; ++i) {
    calls += R"({"id":)" + std::to_string(i) + R"(,"op":"item","identifier":"/Docs/a.txt"})" + "\n";
  }
  console.program().write(calls);
  console.program().closeInput();
  std::set<int> settled;
  for (int i = 0; i < kCalls; ++i) {
    const Json line = console.readUntil("settled");
    ASSERT_FALSE(line.is_null());
    settled.insert(line["id"].get<int>());
  }
  EXPECT_EQ(settled.size(), std::size_t{kCalls});
  for (const auto& line : console.lines()) {
    if (line["event"] == "completion") EXPECT_EQ(line["error"], nullptr);
  }
  EXPECT_EQ(console.readUntil("anything"), nullptr);
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST_F(WholePrograms, AStoppedServiceIsUnreachableAndChangesNothing) {
  ConsoleProgram console;
  console.call("enumerateItems", R"(,"container":"/Docs")");
  service->signal(SIGTERM);
  EXPECT_EQ(service->finish(), 0) << service->errors();
  const auto item = console.completion("item", R"(,"identifier":"/Docs/a.txt")");
  EXPECT_EQ(item["error"]["domain"], "NSURLErrorDomain");
  EXPECT_EQ(item["error"]["code"], -1004);
  const auto listing = console.call("enumerateItems", R"(,"container":"/Docs")");
  EXPECT_EQ(ConsoleProgram::only(listing, "finishEnumeratingWithError")["error"]["domain"],
            "NSURLErrorDomain");
  const auto changes = console.call("enumerateChanges", R"(,"container":"/Docs","anchor":"older")");
  EXPECT_EQ(changes.size(), 3U);
  EXPECT_EQ(ConsoleProgram::only(changes, "finishEnumeratingChanges")["anchor"], "older");
  const auto contents = console.completion("fetchContents", R"(,"identifier":"/Docs/a.txt")");
  EXPECT_EQ(contents["url"], nullptr);
  EXPECT_EQ(contents["error"]["code"], -1004);
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST_F(WholePrograms, AWrongTokenIsRefusedUntilTheRightOneIsConfigured) {
  configure(files.write("other", "wrong-token"));
  ConsoleProgram console;
  const auto refused = console.completion("item", R"(,"identifier":"/Docs/a.txt")");
  EXPECT_EQ(refused["error"]["domain"], "KestruneAPI.APIError");
  EXPECT_EQ(refused["error"]["code"], 0);
  EXPECT_EQ(refused["error"]["case"], "http");
  EXPECT_EQ(refused["error"]["status"], 401);
  EXPECT_THAT(refused["error"]["description"].get<std::string>(), HasSubstr("HTTP 401: "));
  configure(files.path() / "token");
  EXPECT_EQ(console.completion("item", R"(,"identifier":"/Docs/a.txt")")["error"], nullptr);
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST_F(WholePrograms, TheTokenIsNowhereButInTheConfiguration) {
  ConsoleProgram console({"--show-private"});
  console.call("enumerateItems", R"(,"container":"/Docs")");
  console.call("fetchContents", R"(,"identifier":"/Docs/a.txt","watch":true)");
  console.call("item", R"(,"identifier":"/nowhere/x")");
  // A file of size 0 to those who ask.
  std::ifstream limitsFile("/proc/" + std::to_string(console.program().pid()) + "/limits");
  const std::string limits(std::istreambuf_iterator<char>(limitsFile), {});
  EXPECT_THAT(limits, testing::ContainsRegex("Max core file size +0 +0"));
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
  EXPECT_THAT(console.text() + console.program().errors(), Not(HasSubstr(kToken)));
  int searched = 0;
  for (const auto& entry : fs::recursive_directory_iterator(storage.applicationSupport())) {
    if (!entry.is_regular_file()) continue;
    ++searched;
    EXPECT_EQ(contentsOf(entry.path()).find(kToken) != std::string::npos,
              entry.path().filename() == "config.json")
        << entry.path();
  }
  EXPECT_GE(searched, 3);  // the configuration, the status, a listing
}

}  // namespace

namespace {

TEST(ConsoleProgramTest, WithoutAConfigurationEveryRequestSaysSo) {
  const support::IsolatedStorage storage;
  ConsoleProgram console({"--show-private"});
  const auto item = console.completion("item", R"(,"identifier":"/a")");
  EXPECT_EQ(item["error"], (Json{{"domain", "KestruneAPI.APIError"},
                                 {"code", 2},
                                 {"case", "notConfigured"},
                                 {"description", "API URL or auth token missing"}}));
  EXPECT_EQ(console.lines().at(0)["arguments"], (Json{"main", "nil", "missing"}));
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST(ConsoleProgramTest, NothingIsWrittenToTheStatusFileAfterTheLastCallHasSettled) {
  const support::IsolatedStorage storage;
  ConsoleProgram console;
  constexpr int kCalls = 1000;  // each fails at once and has the file written twice
  std::string calls;
  for (int i = 0; i < kCalls; ++i)
    calls += R"({"id":1,"op":"enumerateItems","container":"/"})"
             "\n";
  std::thread writing([&] { console.program().write(calls); });
  for (int i = 0; i < kCalls; ++i) console.readUntil("settled");
  const auto file = storage.shared() / "sync-status.json";
  const std::string last = contentsOf(file);
  const auto written = fs::last_write_time(file);
  EXPECT_EQ(Json::parse(last)["activeEnumerations"], 0);
  EXPECT_TRUE(support::staysTrue([&] { return fs::last_write_time(file) == written; },
                                 std::chrono::milliseconds(200)));
  writing.join();
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST(ConsoleProgramTest, OpsToComeAreInvalidAndTheConsoleGoesOn) {
  const support::IsolatedStorage storage;
  ConsoleProgram console;
  console.program().write("nonsense\n\n");
  console.readUntil("invalid");
  const auto empty = console.readUntil("invalid");
  EXPECT_EQ(empty["id"], nullptr);
  const auto unknown = console.call("nope");
  EXPECT_EQ(unknown.back()["event"], "invalid");
  EXPECT_EQ(console.call("invalidate").size(), 1U);
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST(ConsoleProgramTest, TheEndOfTheInputWaitsForAnAnswerThatIsHeldBack) {
  support::ServiceFixture service;
  service.http().hold("GET", "/files");
  ConsoleProgram console;
  console.program().write(R"({"id":1,"op":"item","identifier":"/a"})");  // and no line feed
  console.program().closeInput();
  const auto request = service.http().nextHeld();
  EXPECT_EQ(console.readUntil("returned")["id"], 1);
  request.answer(support::Answer(200, support::listingReply({{.name = "a", .size = 1}})));
  EXPECT_EQ(console.readUntil("completion")["error"], nullptr);
  EXPECT_EQ(console.readUntil("settled")["id"], 1);
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
}

TEST(ConsoleProgramTest, AClosedOutputEndsItQuietly) {
  const support::IsolatedStorage storage;
  ConsoleProgram console;
  console.readUntil("log");
  console.program().closeOutput();
  console.program().write("{\"id\":1,\"op\":\"invalidate\"}\n");
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
  EXPECT_EQ(console.program().errors(), "");
}

TEST(KestruneProgram, ClosedStandardDescriptorsReceiveNoFile) {
  const support::IsolatedStorage storage;
  // The token's file would take the descriptor of the output, and be gone when the message comes.
  EXPECT_EQ(std::system(KESTRUNE_BIN_DIR "/kestrune invalidate >&- 2>&-"), 0);
  EXPECT_EQ(contentsOf(storage.shared() / "invalidation-token.txt").size(), 37U);
  EXPECT_EQ(
      std::system(
          "echo '{\"id\":1,\"op\":\"enumerateItems\",\"container\":\"/\"}' | " KESTRUNE_BIN_DIR
          "/kestrune console >&- 2>&-"),
      0);
  EXPECT_EQ(Json::parse(contentsOf(storage.shared() / "sync-status.json"))["activeEnumerations"],
            0);
}

TEST(KestruneProgram, ExitCodesTellFailureFromWrongUsage) {
  const support::IsolatedStorage storage;
  struct Case {
    std::vector<std::string> arguments;
    int code;
  };
  const std::vector<Case> table = {
      {{"--help"}, 0},
      {{"--version"}, 0},
      {{"console", "--help"}, 0},
      {{}, 2},
      {{"nope"}, 2},
      {{"console", "--nope"}, 2},
      {{"console", "--domain"}, 2},
      {{"configure", "--url", "http://h"}, 2},
      {{"configure", "--url", "http://h", "--token-file", "/nonexistent/token"}, 1},
      {{"configure", "--url", "nonsense", "--token-file", "-"}, 1}};
  for (const auto& [arguments, code] : table) {
    ChildProgram program("kestrune", arguments);
    EXPECT_EQ(program.finish(), code) << testing::PrintToString(arguments);
    EXPECT_EQ(program.errors().empty(), code == 0) << program.errors();
  }
}

}  // namespace
}  // namespace kestrune
