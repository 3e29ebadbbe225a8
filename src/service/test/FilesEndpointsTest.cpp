// The endpoints that list and change the tree, over HTTP.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "platform/values/Json.h"
#include "service/test/RunningService.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using platform::Json;
using ::testing::HasSubstr;
using ::testing::Not;

const Json kDone = Json::object();

TEST(FilesEndpoints, ListsAFolder) {
  const RunningService service;
  service.write("Docs/a.txt", "hello");
  const Answer answer = service.list("%2FDocs");
  EXPECT_EQ(answer.status, 200U);
  EXPECT_EQ(answer.field("content-type"), "application/json");
  const Json listing = answer.json();
  EXPECT_EQ(listing["path"], "/Docs");
  ASSERT_EQ(listing["entries"].size(), 1U);
  EXPECT_EQ(listing["entries"][0]["name"], "a.txt");
  EXPECT_EQ(listing["entries"][0]["size"], 5);
}

TEST(FilesEndpoints, AQueryIsTakenLiterally) {
  const RunningService service;
  const char* name = "a&b=c+d;e@f g";
  fs::create_directory(service.inTree(name));
  EXPECT_EQ(service.list("%2Fa&b=c+d;e@f%20g").json()["path"], std::string("/") + name);
  EXPECT_EQ(service.remove("%2Fa&b=c+d;e@f%20g").status, 200U);
  EXPECT_FALSE(fs::exists(service.inTree(name)));
}

TEST(FilesEndpoints, TwentyThousandEntriesArriveWholeAndOnce) {
  const RunningService service;
  service.makeFiles("Many", 20'000);
  const Answer answer = service.list("%2FMany");
  EXPECT_EQ(answer.field("transfer-encoding"), "chunked");
  const Json listing = answer.json();
  std::set<std::string> names;
  for (const auto& entry : listing["entries"]) names.insert(entry["name"]);
  EXPECT_EQ(listing["entries"].size(), 20'000U);
  EXPECT_EQ(names.size(), 20'000U);
}

TEST(FilesEndpoints, ALongListingReachesOldClientsToo) {
  const RunningService service;
  service.makeFiles("Many", 3000);
  Client client(service.port());
  client.send(std::string("GET /files?path=%2FMany HTTP/1.0\r\nAuthorization: Bearer ") +
              RunningService::kToken + "\r\n\r\n");
  const Answer answer = client.readAnswer();
  EXPECT_EQ(answer.field("transfer-encoding"), "");
  EXPECT_EQ(answer.json()["entries"].size(), 3000U);
}

TEST(FilesEndpoints, NamesThatAreLeftOutAreLoggedOnceAListing) {
  const support::CapturingLogSink log;
  const RunningService service;
  service.write("Docs/good", "");
  service.write("Docs/b\nd", "");
  service.write("Docs/\xff", "");
  EXPECT_EQ(service.list("%2FDocs").json()["entries"].size(), 1U);
  ASSERT_TRUE(log.waitForRecords(1));
  EXPECT_EQ(log.messages().size(), 1U);
  EXPECT_TRUE(log.contains("left out 2 names"));
}

TEST(FilesEndpoints, OneRefusalForEachKindOfMistake) {
  const RunningService service;
  service.write("Docs/a.txt", "hello");
  fs::create_symlink("/etc", service.inTree("link"));
  const std::pair<const char*, unsigned> cases[] = {
      {"%2Fmissing", 404},
      {"%2FDocs%2Fa.txt%2Fx", 404},
      {"%2FDocs%2Fa.txt", 409},
      {"Docs", 400},
      {"", 400},
      {"%2F..", 400},
      {"%2FDocs%2F..%2FDocs", 400},
      {"%2FDocs%2F", 400},
      {"%2F%00", 400},
      {"%2F%0A", 400},
      {"%2F%FF", 400},
      {"%2Flink", 400},
      {"%2Flink%2Fpasswd", 400},
      {"%2F%", 400},
  };
  for (const auto& [path, status] : cases) {
    const Answer answer = service.list(path);
    EXPECT_EQ(answer.status, status) << path;
    EXPECT_EQ(answer.body == "not found", status == 404) << path << ": " << answer.body;
    EXPECT_THAT(answer.body, Not(HasSubstr("404")));
  }
}

TEST(FilesEndpoints, NothingIsDoneWithoutTheToken) {
  const RunningService service;
  service.write("a.txt", "hello");
  for (const char* authorization : {"", "Bearer", "Bearer wrong", "Basic a-token-for-tests"}) {
    const Answer answer =
        service.storage("DELETE", "/files?path=%2Fa.txt", {{"Authorization", authorization}});
    EXPECT_EQ(answer.status, 401U);
    EXPECT_EQ(answer.field("www-authenticate"), "Bearer");
  }
  EXPECT_EQ(service.storage("GET", "/files?path=%2F").status, 401U);
  EXPECT_EQ(service.storage("POST", "/files/mkdir", {}, R"({"path":"/x"})").status, 401U);
  EXPECT_EQ(service.storage("GET", "/events").status, 401U);
  EXPECT_TRUE(fs::exists(service.inTree("a.txt")));
  EXPECT_FALSE(fs::exists(service.inTree("x")));
}

TEST(FilesEndpoints, UnknownPathsAndMethods) {
  const RunningService service;
  EXPECT_EQ(service.call("GET", "/file").status, 404U);
  EXPECT_EQ(service.call("GET", "/files/mkdir").status, 405U);
  EXPECT_EQ(service.call("GET", "/files/mkdir").field("allow"), "POST");
  EXPECT_EQ(service.call("PUT", "/files?path=%2F").field("allow"), "GET, DELETE");
}

TEST(FilesEndpoints, DeletesFilesAndFoldersWithAllThatIsInThem) {
  const RunningService service;
  service.write("Docs/Sub/a.txt", "x");
  service.write("Docs/b.txt", "x");
  const Answer file = service.remove("%2FDocs%2Fb.txt");
  EXPECT_EQ(file.status, 200U);
  EXPECT_EQ(file.json(), kDone);
  EXPECT_EQ(service.remove("%2FDocs").status, 200U);
  EXPECT_FALSE(fs::exists(service.inTree("Docs")));
  EXPECT_TRUE(support::waitUntil([&] { return service.stagedCount() == 0; }));
  const Answer again = service.remove("%2FDocs");
  EXPECT_EQ(again.status, 404U);
  EXPECT_EQ(again.body, "not found");
  EXPECT_EQ(service.remove("%2F").status, 400U);
}

TEST(FilesEndpoints, MakesAndMovesFolders) {
  const RunningService service;
  EXPECT_EQ(service.post("mkdir", {{"path", "/Docs"}}).json(), kDone);
  EXPECT_EQ(service.post("mkdir", {{"path", "/Docs"}}).status, 409U);
  EXPECT_EQ(service.post("mkdir", {{"path", "/missing/Docs"}}).status, 404U);
  EXPECT_EQ(service.post("move", {{"src", "/Docs"}, {"dst", "/Papers"}}).json(), kDone);
  EXPECT_EQ(service.post("move", {{"src", "/Papers"}, {"dst", "/Papers/Sub"}}).status, 409U);
  EXPECT_EQ(service.post("move", {{"src", "/Docs"}, {"dst", "/x"}}).status, 404U);
  EXPECT_TRUE(fs::is_directory(service.inTree("Papers")));
}

TEST(FilesEndpoints, MalformedBodiesAreExplained) {
  const RunningService service;
  const std::pair<const char*, const char*> cases[] = {
      {"", "JSON"},
      {"{", "JSON"},
      {"\xff", "JSON"},
      {"[]", "object"},
      {"\"x\"", "object"},
      {"{}", "path"},
      {R"({"path":1})", "path"},
      {R"({"path":null})", "path"},
      {R"({"path":["/a"]})", "path"},
      {R"({"path":"/a"} x)", "JSON"},
      {R"({"path":"a"})", "absolute"},
  };
  for (const auto& [body, reason] : cases) {
    const Answer answer = service.call("POST", "/files/mkdir", body);
    EXPECT_EQ(answer.status, 400U) << body;
    EXPECT_THAT(answer.body, HasSubstr(reason)) << body;
    EXPECT_EQ(answer.field("content-type"), "text/plain; charset=utf-8");
  }
  const std::string deep =
      "{\"path\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}";
  EXPECT_EQ(service.call("POST", "/files/mkdir", deep).status, 400U);
}

TEST(FilesEndpoints, ABodyBeyondAMebibyteIsTooLarge) {
  const RunningService service;
  const std::string large = R"({"path":")" + std::string(1U << 20U, 'a') + "\"}";
  EXPECT_EQ(service.call("POST", "/files/mkdir", large).status, 413U);
  Client chunked(service.port());
  chunked.send(
      std::string(
          "POST /files/mkdir HTTP/1.1\r\nTransfer-Encoding: chunked\r\nAuthorization: Bearer ") +
      RunningService::kToken + "\r\n\r\n200000\r\n" + std::string(0x200000, 'a'));
  EXPECT_EQ(chunked.readAnswer().status, 413U);
}

TEST(FilesEndpoints, NotifyTakesTheSizeAsText) {
  const RunningService service;
  service.write("a.txt", "hello");
  EXPECT_EQ(service.post("presign-notify", {{"path", "/a.txt"}, {"size", "5"}}).json(), kDone);
  EXPECT_EQ(service.post("presign-notify", {{"path", "/a.txt"}, {"size", "6"}}).status, 409U);
  EXPECT_EQ(service.post("presign-notify", {{"path", "/b.txt"}, {"size", "5"}}).status, 404U);
  for (const Json& size : {Json(5), Json(""), Json("-5"), Json("+5"), Json("5 "), Json("0x5"),
                           Json("99999999999999999999"), Json()}) {
    EXPECT_EQ(service.post("presign-notify", {{"path", "/a.txt"}, {"size", size}}).status, 400U)
        << size;
  }
}

TEST(FilesEndpoints, PresigningNamesTheMethodAndThePath) {
  const RunningService service;
  service.write("Docs/a b.txt", "hello");
  const Json download = service.post("presign-download", {{"path", "/Docs/a b.txt"}}).json();
  EXPECT_EQ(download["method"], "GET");
  EXPECT_EQ(download["path"], "/Docs/a b.txt");
  const Json upload = service.post("presign-upload", {{"path", "/Docs/new.txt"}}).json();
  EXPECT_EQ(upload["method"], "PUT");
  EXPECT_EQ(upload["path"], "/Docs/new.txt");
  for (const char* endpoint : {"presign-download", "presign-upload"}) {
    EXPECT_EQ(service.post(endpoint, {{"path", "/Docs"}}).status, 409U);
    EXPECT_EQ(service.post(endpoint, {{"path", "/missing/a"}}).status, 404U);
    EXPECT_EQ(service.post(endpoint, {{"path", "/../a"}}).status, 400U);
  }
  EXPECT_EQ(service.post("presign-download", {{"path", "/missing"}}).status, 404U);
}

TEST(FilesEndpoints, URLsComeFromTheOperatorOrTheSocketNeverFromTheRequest) {
  const RunningService plain;
  plain.write("a", "");
  const Answer answer =
      plain.storage("POST", "/files/presign-download",
                    {{"Host", "evil.example"},
                     {"X-Forwarded-Host", "evil.example"},
                     {"Authorization", std::string("Bearer ") + RunningService::kToken}},
                    R"({"path":"/a"})");
  EXPECT_THAT(answer.json()["url"].get<std::string>(),
              HasSubstr("http://127.0.0.1:" + std::to_string(plain.port()) + "/storage/"));
  const RunningService proxied(
      [](Options& options) { options.publicURL = "https://files.example/store"; });
  proxied.write("a", "");
  EXPECT_TRUE(proxied.post("presign-download", {{"path", "/a"}})
                  .json()["url"]
                  .get<std::string>()
                  .starts_with("https://files.example/store/storage/tree/a?"));
}

TEST(FilesEndpoints, ManyAtOnceGetTheSameAnswers) {
  const RunningService service;
  for (int i = 0; i < 200; ++i) service.write("Docs/file " + std::to_string(i), std::to_string(i));
  const std::string expected = service.list("%2FDocs").body;
  std::atomic<int> same = 0;
  std::vector<std::thread> clients;
  constexpr int kClients = 16;
  constexpr int kRounds = 10;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&] {
      Client client(service.port());
      for (int round = 0; round < kRounds; ++round) {
        const Answer answer =
            client.call("GET", "/files?path=%2FDocs",
                        {{"Authorization", std::string("Bearer ") + RunningService::kToken}});
        if (answer.status == 200 && answer.body == expected) ++same;
      }
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(same, kClients * kRounds);
}

TEST(FilesEndpoints, OfManyWhoMakeTheSameFolderOneSucceeds) {
  const RunningService service;
  std::atomic<int> made = 0;
  std::atomic<int> refused = 0;
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&] {
      const unsigned status = service.post("mkdir", {{"path", "/Docs"}}).status;
      made += status == 200 ? 1 : 0;
      refused += status == 409 ? 1 : 0;
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(made, 1);
  EXPECT_EQ(refused, 7);
}

}  // namespace
}  // namespace kestrune::service
