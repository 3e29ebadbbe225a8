// The token goes to the service, in one header, and is to be found nowhere else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <variant>
#include <vector>

#include "extension/test/ExtensionTesting.h"
#include "namespace/PinStore.h"
#include "namespace/test/Observers.h"
#include "status/SyncStatusStore.h"
#include "tests/support/DeadEnds.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using support::Answer;
using support::contentsOf;
using support::DetachedTasks;
using support::ServiceFixture;
using ::testing::HasSubstr;
using ::testing::Not;

class TokenSecrecyTest : public ExtensionTesting {
 protected:
  ~TokenSecrecyTest() override { SyncStatusStore::shared().drain(); }

  /// Everything that the extension can be asked so far.
  void askForEverything() {
    const auto extension = makeExtension();
    Recorder item;
    Recorder contents;
    auto items = std::make_shared<EnumerationRecorder>();
    auto changes = std::make_shared<ChangeRecorder>();
    const DetachedTasks tasks([&] {
      item = askForItem(*extension, "/a");
      contents = askForContents(*extension, "/a");
      extension->enumerator("/", {})->enumerateItems(items, "");
      extension->enumerator("/", {})->enumerateChanges(changes, "another anchor");
    });
    ASSERT_TRUE(tasks.waitUntilEnded());
    expectHidden(item->answer().error);
    expectHidden(contents->answer().error);
    expectHidden(items->error());
  }

  static void expectHidden(const std::string& text, const std::string& where) {
    EXPECT_THAT(text, Not(HasSubstr(ServiceFixture::kToken))) << where;
  }
  static void expectHidden(const platform::NSErrorPtr& error) {
    if (!error) return;
    expectHidden(error->localizedDescription(), "an error");
    for (const auto& [key, value] : error->userInfo()) expectHidden(key + value, "user info");
  }
  void expectHiddenInLog() const {
    for (const auto& record : log_.records()) {
      expectHidden(record.message(), "a line");
      expectHidden(record.format, "a format");
      for (const auto& argument : record.arguments) {
        if (const auto* text = std::get_if<std::string>(&argument)) expectHidden(*text, "argument");
      }
    }
  }
  void expectHiddenInFiles() const {
    SyncStatusStore::shared().drain();
    std::size_t files = 0;
    for (const auto& directory :
         {service_.storage().applicationSupport(), service_.storage().temporary()}) {
      for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (!entry.is_regular_file() || entry.path().filename() == "config.json") continue;
        ++files;
        expectHidden(entry.path().string(), "a file's name");
        expectHidden(contentsOf(entry.path()), entry.path().string());
      }
    }
    EXPECT_GT(files, 0U);
  }
};

TEST_F(TokenSecrecyTest, ItIsInNoLineAndNoFileAndGoesToTheServiceAlone) {
  support::HttpFixture storage;
  storage.on("GET", "/object", Answer(200, "hello"));
  service_.http().on(
      "POST", "/files/presign-download",
      Answer(200, "{\"url\":\"" + storage.url("/object") + "\",\"method\":\"GET\",\"path\":\"\"}"));
  service_.setListing("/", {{.name = "a", .size = 5}});
  PinStore::setPinned(true, "/a");
  askForEverything();

  EXPECT_GE(log_.records().size(), 3U);
  expectHiddenInLog();
  expectHiddenInFiles();
  for (const auto& request : storage.requests()) {
    expectHidden(request.target, "the storage's address");
    for (const auto& [name, value] : request.headers) expectHidden(name + value, "a header");
  }
  ASSERT_EQ(storage.requestCount(), 1U);
  for (const auto& request : service_.http().requests()) {
    EXPECT_EQ(request.header("Authorization"), "Bearer " + std::string(ServiceFixture::kToken));
    expectHidden(request.target + request.body, "a request");
    for (const auto& [name, value] : request.headers) {
      if (name != "Authorization") expectHidden(value, name);
    }
  }
}

TEST_F(TokenSecrecyTest, ItIsInNoErrorWhateverFails) {
  const support::RefusingPort nobody;
  const std::string token = ServiceFixture::kToken;
  const auto configured = [&token](const std::string& url) {
    return "{\"apiURL\":\"" + url + "\",\"token\":\"" + token + "\"}";
  };
  const std::string origin = service_.http().origin();
  const std::string configurations[] = {
      configured(nobody.origin()),
      configured(""),
      configured("a b"),
      configured("ftp://127.0.0.1"),
      "{\"apiURL\":\"" + origin + "\",\"token\":\"" + token + "\\r\\nX: y\"}",
      "{\"apiURL\":7,\"token\":\"" + token + "\"}",
      "{\"apiURL\":\"" + origin + "\",\"token\":\"" + token,
      "{\"apiURL\":\"" + origin + "\",\"token\":\"" + token + "\xFF\"}",
      token,
  };
  for (const auto& text : configurations) {
    service_.writeConfiguration(text);
    askForEverything();
  }
  const Answer answers[] = {
      Answer(401, "who are you"),
      Answer(500, "\xFF"),
      Answer(200, "<html>"),
      Answer(200, "{}").closingAt(1),
      Answer(200).resettingInHead(3),
      Answer::redirect(302, "ftp://127.0.0.1/"),
      Answer::raw("HTTP/9 what\r\n\r\n"),
      Answer::redirect(302, nobody.origin() + "/files"),
  };
  service_.configure(origin);
  for (const auto& answer : answers) {
    service_.http().on("GET", "/files", answer);
    askForEverything();
  }
  service_.http().on("GET", "/files", Answer(200, support::listingReply({{.name = "a"}})));
  for (const auto& answer : answers) {
    service_.http().on("POST", "/files/presign-download", answer);
    askForEverything();
  }
  EXPECT_GE(log_.records().size(), 3U * (std::size(configurations) + std::size(answers)));
  expectHiddenInLog();
  expectHiddenInFiles();
}

}  // namespace
}  // namespace kestrune
