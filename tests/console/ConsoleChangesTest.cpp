// Local changes, ranges and the menu's actions through `kestrune console`, against
// kestrune-service; at the end the service's tree is compared with what was asked for.
#include <sys/stat.h>

#include <fstream>
#include <map>

#include "platform/values/Json.h"
#include "tests/console/ConsoleProgram.h"
#include "tests/console/WholePrograms.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

using platform::Json;
using support::contentsOf;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr const char* kRoot = "NSFileProviderRootContainerItemIdentifier";
constexpr int kContents = 1;
constexpr int kFilename = 2;
constexpr int kParent = 4;

/// One argument of a call.
std::string with(const std::string& name, const Json& value) {
  return ",\"" + name + "\":" + value.dump();
}

class ConsoleChanges : public WholePrograms {
 protected:
  /// A local file for the extension to send.
  fs::path local(const std::string& name, std::string_view contents) {
    return files.write("local/" + name, contents);
  }

  Json create(const std::string& parent, const std::string& name, const fs::path& contents) {
    return succeeded("createItem", with("parent", parent) + with("filename", name) +
                                       with("contents", contents.string()));
  }
  Json createFolder(const std::string& parent, const std::string& name) {
    return succeeded("createItem", with("parent", parent) + with("filename", name) +
                                       with("contentType", "folder"));
  }
  Json change(const std::string& identifier, const std::string& parent, const std::string& name,
              int fields, const std::optional<fs::path>& contents = std::nullopt) {
    std::string arguments = with("identifier", identifier) + with("parent", parent) +
                            with("filename", name) + with("changedFields", fields);
    if (contents) arguments += with("contents", contents->string());
    return succeeded("modifyItem", arguments);
  }
  void remove(const std::string& identifier) {
    succeeded("deleteItem", with("identifier", identifier));
  }
  Json act(const std::string& action, const std::vector<std::string>& items) {
    return console.completion("performAction", with("action", action) + with("items", items));
  }

  /// The completion of a call that must not fail.
  Json succeeded(const std::string& op, const std::string& arguments) {
    Json line = console.completion(op, arguments);
    EXPECT_EQ(line["error"], nullptr) << op << arguments;
    EXPECT_EQ(line["thread"], "task");
    EXPECT_EQ(line["progress"]["completed"], line["progress"]["total"]) << op << arguments;
    return line;
  }

  /// Every file of the service's tree with its contents; folders end with a slash.
  std::map<std::string, std::string> remoteTree() const {
    std::map<std::string, std::string> found;
    const fs::path root = files.path() / "tree";
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      const std::string name = entry.path().lexically_relative(root);
      if (entry.is_directory()) {
        found[name + "/"] = "";
      } else {
        found[name] = contentsOf(entry.path());
      }
    }
    return found;
  }

  Json transfers() const {
    return Json::parse(contentsOf(storage.shared() / "sync-status.json")).at("transfers");
  }

  ConsoleProgram console;
};

TEST_F(ConsoleChanges, AWorkingDayLeavesTheTreeThatWasAskedFor) {
  auto expected = remoteTree();
  const std::string large = randomBytes(40'000'003, 1);
  const std::string medium = randomBytes(16'777'215, 2);
  const std::string rewritten = randomBytes(20'000'000, 3);

  createFolder(kRoot, "Work");
  createFolder("/Work", "Deep & odd = +;");
  const auto small = create("/Work", "note.txt", local("note", "a note"));
  EXPECT_EQ(small["item"]["identifier"], "/Work/note.txt");
  EXPECT_EQ(small["item"]["documentSize"], 6);
  EXPECT_EQ(small["pendingFields"], 0);
  EXPECT_EQ(small["shouldFetchContent"], false);
  create(kRoot, "empty", local("empty", ""));
  create("/Work/Deep & odd = +;", "large.bin", local("large", large));
  create("/Work", "medium.bin", local("medium", medium));

  change("/Work/note.txt", "/Work", "renamed ünïcode.txt", kFilename);
  change("/Work/renamed ünïcode.txt", kRoot, "top.txt", kFilename | kParent | kContents,
         local("new note", "another note"));
  change("/Work/medium.bin", "/Work", "medium.bin", kContents, local("rewritten", rewritten));
  change("/Work/Deep & odd = +;", "/Docs", "Moved", kFilename | kParent);
  remove("/Docs/Sub");
  remove("/Docs/a.txt");
  remove("/Docs/a.txt");

  expected.erase("Docs/Sub/");
  expected.erase("Docs/Sub/inner");
  expected.erase("Docs/a.txt");
  expected["Work/"] = "";
  expected["empty"] = "";
  expected["top.txt"] = "another note";
  expected["Work/medium.bin"] = rewritten;
  expected["Docs/Moved/"] = "";
  expected["Docs/Moved/large.bin"] = large;
  EXPECT_TRUE(remoteTree() == expected) << "the trees differ";
  EXPECT_THAT(transfers(), testing::IsEmpty());
  EXPECT_EQ(console.program().finish(), 0) << console.program().errors();
  EXPECT_EQ(console.program().errors(), "");
}

TEST_F(ConsoleChanges, WhatWasSentComesBackByRange) {
  const std::string contents = randomBytes(40'000'003, 5);
  create("/Docs", "ranges.bin", local("ranges", contents));
  for (const auto& [location, length] : std::vector<std::pair<std::int64_t, std::int64_t>>{
           {0, 1}, {39'999'000, 1003}, {4097, 70'000}, {20'000'000, 1}}) {
    const auto line =
        console.completion("fetchPartialContents",
                           with("identifier", "/Docs/ranges.bin") + with("location", location) +
                               with("length", length) + with("alignment", 0));
    ASSERT_EQ(line["error"], nullptr);
    const fs::path url(line["url"].get<std::string>());
    const std::int64_t start = line["location"];
    const std::int64_t present = line["length"];
    EXPECT_EQ(url.parent_path(), storage.temporary());
    EXPECT_THAT(url.filename().string(), testing::StartsWith("kes-"));
    EXPECT_EQ(start % 4096, 0);
    EXPECT_LE(start, location);
    EXPECT_GE(start + present, location + length);
    EXPECT_EQ(line["flags"], 0);
    const std::string local = contentsOf(url);
    ASSERT_EQ(local.size(), contents.size());
    const auto at = static_cast<std::size_t>(start);
    const auto count = static_cast<std::size_t>(present);
    EXPECT_TRUE(local.substr(at, count) == contents.substr(at, count));
    struct stat status {};
    ASSERT_EQ(::stat(url.c_str(), &status), 0);
    EXPECT_LE(status.st_blocks * 512, present + 65536) << "outside of the range there is nothing";
    fs::remove(url);
  }
  EXPECT_EQ(storage.temporaryNames().size(), 0U);
}

TEST_F(ConsoleChanges, TheClockThatIsMovedEndsAStreak) {
  create("/Docs", "streak.bin", local("streak", std::string(5'000'000, 's')));
  const auto readAhead = [&](std::int64_t location) {
    console.call("fetchPartialContents", with("identifier", "/Docs/streak.bin") +
                                             with("location", location) + with("length", 10) +
                                             with("alignment", 0));
    std::string last;
    for (const auto& line : console.lines()) {
      if (line["event"] == "log" && line["format"].get<std::string>().starts_with("partial fetch"))
        last = line["message"];
    }
    return last.substr(last.find("read-ahead="));
  };
  EXPECT_EQ(readAhead(0), "read-ahead=33554432)");
  EXPECT_EQ(readAhead(10), "read-ahead=67108864)");
  console.call("advanceClock", with("seconds", 301));
  console.call("fetchPartialContents", with("identifier", "/Docs/big.bin") + with("location", 0) +
                                           with("length", 10) + with("alignment", 0));
  EXPECT_EQ(readAhead(20), "read-ahead=33554432)");
}

TEST_F(ConsoleChanges, TheMenuPinsEvictsAndLinks) {
  const auto download = act("org.example.download-now", {"/Docs/a.txt", "/Docs/big.bin"});
  EXPECT_EQ(download["error"], nullptr);
  EXPECT_EQ(download["progress"], (Json{{"total", 2}, {"completed", 2}}));
  const auto pinned = console.completion("item", with("identifier", "/Docs/a.txt"));
  EXPECT_EQ(pinned["item"]["contentPolicy"], 3);
  change("/Docs/a.txt", "/Docs", "b.txt", kFilename);
  EXPECT_EQ(Json::parse(contentsOf(storage.shared() / "pinned.json")),
            (Json{"/Docs/b.txt", "/Docs/big.bin"}));

  console.call("manager", with("failEvict", Json::array({"/Docs/big.bin"})));
  const auto evicted = act("make-online-only", {"/Docs/big.bin", "/Docs/b.txt"});
  EXPECT_THAT(evicted["error"]["description"].get<std::string>(), HasSubstr("/Docs/big.bin"));
  EXPECT_EQ(Json::parse(contentsOf(storage.shared() / "pinned.json")), (Json{"/Docs/big.bin"}));

  act("copy-share-link", {"/Docs/b.txt", kRoot, "/Docs/a & b/ü.txt"});
  const auto link = ConsoleProgram::only(console.lines(), "pasteboard");
  EXPECT_EQ(link["text"],
            address + "/open/Docs/b.txt\n" + address + "/open/Docs/a%20&%20b/%C3%BC.txt");
  EXPECT_EQ(link["thread"], "main");
  EXPECT_EQ(link["id"], nullptr);

  console.call("manager", with("present", false));
  const auto alone = act("copy-share-link", {"/Docs/b.txt"});
  EXPECT_EQ(alone["error"]["domain"], "NSFileProviderErrorDomain");
  EXPECT_EQ(alone["error"]["code"], -2001);
}

TEST_F(ConsoleChanges, ClutterIsRefusedOnTheCallersThread) {
  const auto before = remoteTree();
  const auto lines =
      console.call("createItem", with("parent", "/Docs") + with("filename", "._a.txt") +
                                     with("contents", local("x", "x").string()));
  const auto line = ConsoleProgram::only(lines, "completion");
  EXPECT_EQ(line["thread"], "caller");
  EXPECT_EQ(line["error"]["code"], -1005);
  EXPECT_EQ(lines.front()["event"], "completion");
  EXPECT_TRUE(remoteTree() == before);
}

TEST_F(ConsoleChanges, AnUploadInPartsThatFailsTellsItsCase) {
  service->signal(SIGTERM);
  ASSERT_EQ(service->finish(), 0) << service->errors();
  const auto line = console.completion(
      "createItem", with("parent", "/Docs") + with("filename", "late.bin") +
                        with("contents", local("late", std::string(16'777'216, 'l')).string()));
  EXPECT_EQ(line["item"], nullptr);
  EXPECT_EQ(line["error"]["domain"], "MultipartUploader.MPError");
  EXPECT_EQ(line["error"]["code"], 0);
  EXPECT_EQ(line["error"]["case"], "initFailed");
  EXPECT_THAT(line["error"]["description"].get<std::string>(),
              testing::StartsWith("multipart init: "));
  EXPECT_EQ(line["progress"]["completed"], 0);
}

// Many calls at once, of all kinds, on files of their own: each ends with what was asked for.
TEST_F(ConsoleChanges, CallsSideBySideEndAsTheyWouldAlone) {
  constexpr int kFiles = 40;
  const auto named = [](int i) { return "f" + std::to_string(i); };
  std::map<std::string, std::string> expected;
  for (int i = 0; i < kFiles; ++i) {
    const std::string text = "contents of " + named(i);
    console.program().write(R"({"id":"c","op":"createItem","parent":"/Docs/Sub")" +
                            with("filename", named(i)) +
                            with("contents", local(named(i), text).string()) + "}\n");
    if (i % 3 == 0) expected[named(i)] = text;
    if (i % 3 == 1) expected[named(i) + " moved"] = text;
  }
  console.call("wait");
  for (int i = 0; i < kFiles; ++i) {
    const std::string identifier = with("identifier", "/Docs/Sub/" + named(i));
    if (i % 3 == 1) {
      console.program().write(R"({"id":"m","op":"modifyItem","parent":"/Docs/Sub")" + identifier +
                              with("filename", named(i) + " moved") + with("changedFields", 2) +
                              "}\n");
    } else if (i % 3 == 2) {
      console.program().write(R"({"id":"d","op":"deleteItem")" + identifier + "}\n");
    }
  }
  console.call("wait");
  for (const auto& line : console.lines()) {
    if (line["event"] == "completion" && line.contains("error")) {
      EXPECT_EQ(line["error"], nullptr) << line.dump();
    }
  }
  std::map<std::string, std::string> found;
  for (const auto& entry : fs::directory_iterator(tree("Docs/Sub"))) {
    if (entry.path().filename() != "inner") {
      found[entry.path().filename()] = contentsOf(entry.path());
    }
  }
  EXPECT_EQ(found, expected);
  EXPECT_THAT(transfers(), testing::IsEmpty());
}

}  // namespace
}  // namespace kestrune
