// Many clients at once who want the same or what excludes each other: the answers are those that
// the same requests get one after the other, in some order, and nothing is lost or seen by halves.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/values/Json.h"
#include "service/test/ConcurrentClients.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using platform::Json;

constexpr int kRounds = 30;

/// Statuses and texts, whoever got them.
using Answers = std::multiset<std::pair<unsigned, std::string>>;

class Concurrency : public ConcurrentClients {
 protected:
  static Answers sorted(const std::vector<Answer>& answers) {
    Answers sorted;
    for (const Answer& answer : answers) sorted.emplace(answer.status, answer.body);
    return sorted;
  }

  /// `prepare` makes what its requests need in the folder that it is given, which exists; of them
  /// `succeeding` succeed. `check` looks at that folder after the requests.
  void expectTheAnswersOfOneByOne(
      std::ptrdiff_t succeeding,
      const std::function<std::vector<Request>(const std::string& folder)>& prepare,
      const std::function<void(const fs::path& folder)>& check = [](const fs::path&) {}) {
    fs::create_directory(service.inTree("alone"));
    Answers expected;
    for (const Request& request : prepare("/alone")) {
      Client client(service.port());
      const Answer answer = send(client, request);
      expected.emplace(answer.status, answer.body);
    }
    const auto succeeded = [](const auto& answer) { return answer.first == 200; };
    EXPECT_EQ(std::count_if(expected.begin(), expected.end(), succeeded), succeeding);
    check(service.inTree("alone"));
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
      const std::string folder = fmt::format("round{}", round);
      fs::create_directory(service.inTree(folder));
      EXPECT_EQ(sorted(atOnce(prepare("/" + folder))), expected);
      check(service.inTree(folder));
    }
  }

  /// A complete upload; returns its key.
  std::string put(const std::string& contents) const {
    const Json presigned = service.post("direct-presign-upload", {{"path", "/x"}}).json();
    EXPECT_EQ(service.storage("PUT", service.targetOf(presigned.at("url")), {}, contents).status,
              200U);
    return presigned.at("key");
  }
  /// An upload with all its parts, and the request that completes it.
  std::pair<Json, Request> uploadOf(const std::vector<std::string>& parts) const {
    const Json opened = service.post("direct-multipart-init", {{"path", "/x"}}).json();
    Json call{{"key", opened["key"]}, {"s3UploadId", opened["s3UploadId"]}};
    Json list = Json::array();
    for (std::size_t i = 0; i < parts.size(); ++i) {
      call["partNumber"] = i + 1;
      const std::string target = service.presigned("direct-multipart-part-url", call);
      const Answer stored = service.storage("PUT", target, {}, parts[i]);
      EXPECT_EQ(stored.status, 200U);
      list.push_back({{"PartNumber", i + 1}, {"Etag", stored.field("etag")}});
    }
    call.erase("partNumber");
    Json completing = call;
    completing["parts"] = list;
    return {call, post("direct-multipart-complete", completing)};
  }
  static std::size_t countIn(const fs::path& folder) {
    return static_cast<std::size_t>(std::distance(fs::recursive_directory_iterator(folder),
                                                  fs::recursive_directory_iterator()));
  }
};

TEST_F(Concurrency, OfMovesOfOneSourceOneSucceeds) {
  expectTheAnswersOfOneByOne(
      1,
      [&](const std::string& folder) {
        service.write(folder.substr(1) + "/source", "contents");
        return std::vector{move(folder + "/source", folder + "/a"),
                           move(folder + "/source", folder + "/b")};
      },
      [&](const fs::path& folder) {
        EXPECT_EQ(countIn(folder), 1U);
        EXPECT_NE(fs::exists(folder / "a"), fs::exists(folder / "b"));
      });
}

TEST_F(Concurrency, OfMovesToOneDestinationOneSucceeds) {
  expectTheAnswersOfOneByOne(
      1,
      [&](const std::string& folder) {
        std::vector<Request> requests;
        for (int i = 0; i < 6; ++i) {
          service.write(fmt::format("{}/{}", folder.substr(1), i), "contents");
          requests.push_back(move(fmt::format("{}/{}", folder, i), folder + "/destination"));
        }
        return requests;
      },
      [&](const fs::path& folder) { EXPECT_EQ(countIn(folder), 6U); });
}

TEST_F(Concurrency, OfImportsOfOneKeyOneSucceeds) {
  expectTheAnswersOfOneByOne(
      1,
      [&](const std::string& folder) {
        const std::string key = put("contents");
        return std::vector{import(key, folder + "/a"), import(key, folder + "/a"),
                           import(key, folder + "/b")};
      },
      [&](const fs::path& folder) { EXPECT_EQ(countIn(folder), 1U); });
  expectNothingStaged();
}

TEST_F(Concurrency, ImportsToOnePathAllSucceedAndLeaveOneOfThem) {
  expectTheAnswersOfOneByOne(
      6,
      [&](const std::string& folder) {
        std::vector<Request> requests;
        for (int i = 0; i < 6; ++i)
          requests.push_back(
              import(put(std::string(1000, static_cast<char>('a' + i))), folder + "/a"));
        return requests;
      },
      [&](const fs::path& folder) {
        const std::string contents = support::contentsOf(folder / "a");
        EXPECT_EQ(contents, std::string(1000, contents.at(0)));
      });
  expectNothingStaged();
}

TEST_F(Concurrency, OfSixteenWhoMakeOneFolderOneSucceeds) {
  expectTheAnswersOfOneByOne(1, [](const std::string& folder) {
    return std::vector<Request>(16, makeFolder(folder + "/new"));
  });
}

TEST_F(Concurrency, OfManyWhoRemoveOneItemOneSucceeds) {
  expectTheAnswersOfOneByOne(1, [&](const std::string& folder) {
    service.write(folder.substr(1) + "/Docs/Sub/a.txt", "x");
    return std::vector<Request>(8, removal(folder + "/Docs"));
  });
  expectNothingStaged();
}

TEST_F(Concurrency, OfAFileAndAFolderOfOneNameOneSucceeds) {
  for (int round = 0; round < kRounds; ++round) {
    const std::string path = fmt::format("/{}", round);
    const Request upload{"PUT", service.presigned("presign-upload", {{"path", path}}), "contents"};
    const auto answers = atOnce({upload, makeFolder(path)});
    const bool isFolder = fs::is_directory(service.inTree(path.substr(1)));
    EXPECT_EQ(answers[0].status, isFolder ? 409U : 200U);
    EXPECT_EQ(answers[1].status, isFolder ? 200U : 409U);
  }
  expectNothingStaged();
}

TEST_F(Concurrency, AnUploadIntoAFolderThatIsRemovedMeanwhileIsNotFound) {
  service.write("Docs/a.txt", "x");
  const std::string target = service.presigned("presign-upload", {{"path", "/Docs/b.bin"}});
  Client client(service.port());
  client.send("PUT " + target + " HTTP/1.1\r\nContent-Length: 2000000\r\n\r\n" +
              std::string(1'000'000, 'x'));
  ASSERT_TRUE(support::waitUntil([&] { return service.stagedCount() > 0; }));
  EXPECT_EQ(service.remove("%2FDocs").status, 200U);
  client.send(std::string(1'000'000, 'x'));
  EXPECT_EQ(client.readAnswer().status, 404U);
  EXPECT_FALSE(fs::exists(service.inTree("Docs")));
  expectNothingStaged();
}

TEST_F(Concurrency, ARemovedFolderDoesNotComeBackWithWhatWasUploadedIntoIt) {
  for (int round = 0; round < kRounds; ++round) {
    fs::create_directories(service.inTree("Docs/Sub"));
    std::vector<Request> requests{removal("/Docs")};
    for (int i = 0; i < 6; ++i) {
      const Json path{{"path", fmt::format("/Docs/Sub/{}", i)}};
      requests.push_back({"PUT", service.presigned("presign-upload", path), "contents"});
    }
    const auto answers = atOnce(requests);
    EXPECT_EQ(answers[0].status, 200U);
    for (std::size_t i = 1; i < answers.size(); ++i)
      EXPECT_TRUE(answers[i].status == 200 || answers[i].status == 404) << answers[i].status;
    EXPECT_FALSE(fs::exists(service.inTree("Docs")));
  }
  expectNothingStaged();
}

TEST_F(Concurrency, AFolderThatMovesTakesEveryConfirmedImportAlong) {
  constexpr int kFiles = 200;
  fs::create_directory(service.inTree("here"));
  std::vector<std::string> keys;
  for (int i = 0; i < kFiles; ++i) keys.push_back(put(fmt::format("file {}", i)));
  std::atomic<bool> ended = false;
  std::thread mover([&] {
    Client client(service.port());
    while (!ended) {
      EXPECT_EQ(send(client, move("/here", "/there")).status, 200U);
      EXPECT_EQ(send(client, move("/there", "/here")).status, 200U);
    }
  });
  std::atomic<int> next = 0;
  std::atomic<int> missed = 0;
  std::vector<std::thread> importers;
  for (int i = 0; i < 4; ++i) {
    importers.emplace_back([&] {
      Client client(service.port());
      for (int file = next++; file < kFiles && !HasFailure(); file = next++) {
        const Request request =
            import(keys[static_cast<std::size_t>(file)], fmt::format("/here/{}", file));
        // Not found means that nothing has happened, so it can be tried until the folder is there.
        unsigned status = 404;
        for (int attempt = 0; attempt < 1000 && status == 404; ++attempt) {
          status = send(client, request).status;
          missed += status == 404 ? 1 : 0;
        }
        EXPECT_EQ(status, 200U);
      }
    });
  }
  for (std::thread& importer : importers) importer.join();
  ended = true;
  mover.join();
  EXPECT_GT(missed, 0) << "the folder was never away";
  EXPECT_EQ(countIn(service.inTree("here")), std::size_t{kFiles});
  for (int i = 0; i < kFiles; ++i)
    EXPECT_EQ(service.contents(fmt::format("here/{}", i)), fmt::format("file {}", i));
  expectNothingStaged();
}

TEST_F(Concurrency, OfCompletionsOfOneUploadOneSucceeds) {
  // Parts that have to be copied, so that one call finds the other at work.
  const std::vector<std::string> parts{patternBytes(2'000'000, 1), patternBytes(3'000'000, 2),
                                       patternBytes(2'500'000, 3)};
  for (int round = 0; round < 10; ++round) {
    const auto [upload, completion] = uploadOf(parts);
    int succeeded = 0;
    for (const Answer& answer : atOnce(std::vector<Request>(4, completion))) {
      succeeded += answer.status == 200 ? 1 : 0;
      EXPECT_TRUE(answer.status == 200 || answer.status == 409 || answer.status == 404);
    }
    EXPECT_EQ(succeeded, 1);
    EXPECT_EQ(statusOf(import(upload["key"], "/whole.bin")), 200U);
    EXPECT_EQ(service.contents("whole.bin"), parts[0] + parts[1] + parts[2]);
  }
  expectNothingStaged();
}

TEST_F(Concurrency, AnAbortedUploadLeavesNothingThoughItWasBeingCompleted) {
  const std::vector<std::string> parts{patternBytes(2'000'000, 1), patternBytes(3'000'000, 2),
                                       patternBytes(2'500'000, 3)};
  for (int round = 0; round < 20; ++round) {
    const auto [upload, completion] = uploadOf(parts);
    const auto answers = atOnce({completion, post("direct-multipart-abort", upload)});
    EXPECT_TRUE(answers[0].status == 200 || answers[0].status == 404) << answers[0].status;
    EXPECT_EQ(answers[1].status, 200U);
    EXPECT_EQ(statusOf(import(upload["key"], "/whole.bin")), 404U);
    EXPECT_EQ(statusOf(completion), 404U);
  }
  expectNothingStaged();
}

TEST_F(Concurrency, AbortsOfOneUploadAllSucceed) {
  expectTheAnswersOfOneByOne(8, [&](const std::string&) {
    return std::vector<Request>(8, post("direct-multipart-abort", uploadOf({"contents"}).first));
  });
  expectNothingStaged();
}

TEST_F(Concurrency, AFolderMovesBesideItselfButNotIntoItself) {
  service.write("a/b/c.txt", "contents");
  for (const char* destination : {"/a/a", "/a/b/a", "/a/b/c.txt/a", "/a/missing/a", "/a"})
    EXPECT_EQ(statusOf(move("/a", destination)), 409U) << destination;
  EXPECT_EQ(service.contents("a/b/c.txt"), "contents");
  EXPECT_EQ(countIn(service.inTree("")), 3U);
  for (const char* destination : {"/ab", "/a b", "/A", "/a.b", "/a"}) {
    const std::string source =
        "/" + fs::directory_iterator(service.inTree(""))->path().filename().string();
    EXPECT_EQ(statusOf(move(source, destination)), 200U) << source << " " << destination;
    EXPECT_EQ(service.contents(fs::path(destination).relative_path() / "b/c.txt"), "contents");
  }
  EXPECT_EQ(countIn(service.inTree("")), 3U);
}

/// `count` folders, each moved into the next one at the same time, so that all moves would make a
/// ring.
class Ring : public Concurrency, public ::testing::WithParamInterface<int> {};

TEST_P(Ring, FoldersThatMoveIntoEachOtherAreNotLost) {
  const int count = GetParam();
  for (int round = 0; round < kRounds; ++round) {
    const std::string base = fmt::format("/{}", round);
    std::vector<Request> requests;
    for (int i = 0; i < count; ++i) {
      const int next = (i + 1) % count;
      service.write(fmt::format("{}/{}/Sub/{}.txt", round, i, i), "contents");
      requests.push_back(
          move(fmt::format("{}/{}", base, i), fmt::format("{}/{}/Sub/x", base, next)));
    }
    int succeeded = 0;
    for (const Answer& answer : atOnce(requests)) {
      succeeded += answer.status == 200 ? 1 : 0;
      // A folder that is in another one by now is not where it was, nor is what is in it.
      EXPECT_TRUE(answer.status == 200 || answer.status == 404 || answer.status == 409);
    }
    EXPECT_GE(succeeded, 1);
    EXPECT_LT(succeeded, count);
    EXPECT_EQ(countIn(service.inTree(base.substr(1))), static_cast<std::size_t>(3 * count));
  }
}

INSTANTIATE_TEST_SUITE_P(OfTwoAndThree, Ring, ::testing::Values(2, 3));

}  // namespace
}  // namespace kestrune::service
