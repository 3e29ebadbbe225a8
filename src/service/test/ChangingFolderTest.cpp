// Folders that change while they are listed: a listing has what was there all the time, and nothing
// by halves.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/values/Json.h"
#include "service/test/ConcurrentClients.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using platform::Json;

class ChangingFolder : public ConcurrentClients {
 protected:
  /// The names in the listing, each once; nothing if it was refused.
  std::set<std::string> namesIn(const Answer& answer, std::size_t sizeBytes) const {
    std::set<std::string> names;
    EXPECT_EQ(answer.status, 200U);
    const Json listing = answer.json();
    for (const Json& entry : listing.at("entries")) {
      EXPECT_TRUE(names.insert(entry.at("name")).second) << entry;
      EXPECT_EQ(entry.at("type"), "file");
      EXPECT_EQ(entry.at("size"), sizeBytes) << entry;
    }
    return names;
  }
};

TEST_F(ChangingFolder, AListingHasEveryFileThatWasConfirmedAndNoneByHalves) {
  constexpr int kCreators = 4;
  constexpr int kFilesEach = 250;
  const std::string contents(5000, 'x');
  fs::create_directory(service.inTree("Docs"));
  std::array<std::atomic<int>, kCreators> confirmed{};
  std::atomic<int> creating = kCreators;
  std::vector<std::thread> threads;
  for (int creator = 0; creator < kCreators; ++creator) {
    threads.emplace_back([&, creator] {
      Client client(service.port());
      for (int i = 0; i < kFilesEach; ++i) {
        const Json path{{"path", fmt::format("/Docs/{} {}", creator, i)}};
        const Json presigned = send(client, post("presign-upload", path)).json();
        const std::string target = service.targetOf(presigned.at("url"));
        EXPECT_EQ(client.call("PUT", target, {}, contents).status, 200U);
        ++confirmed[static_cast<std::size_t>(creator)];
      }
      --creating;
    });
  }
  Client client(service.port());
  int listings = 0;
  for (bool last = false; !last; ++listings) {
    last = creating == 0;
    std::vector<int> before(confirmed.begin(), confirmed.end());
    const auto names = namesIn(send(client, {"GET", "/files?path=/Docs", ""}), contents.size());
    for (int creator = 0; creator < kCreators; ++creator) {
      for (int i = 0; i < before[static_cast<std::size_t>(creator)]; ++i)
        EXPECT_TRUE(names.contains(fmt::format("{} {}", creator, i)));
    }
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(listings, 10) << "hardly anything was listed while files came";
}

TEST_F(ChangingFolder, WhatNobodyTouchesIsInEveryListing) {
  constexpr int kStill = 3000;
  service.makeFiles("Docs", kStill);
  std::atomic<bool> ended = false;
  std::thread mover([&] {
    Client client(service.port());
    for (int i = 0; !ended; ++i) {
      const std::string path = fmt::format("/Docs/moving {}", i);
      const Json presigned = send(client, post("presign-upload", {{"path", path}})).json();
      const std::string target = service.targetOf(presigned.at("url"));
      EXPECT_EQ(client.call("PUT", target, {}, "").status, 200U);
      EXPECT_EQ(client.call("PUT", target, {}, "").status, 200U);
      EXPECT_EQ(send(client, move(path, path + " on")).status, 200U);
      EXPECT_EQ(send(client, move(path + " on", "/gone")).status, 200U);
      EXPECT_EQ(send(client, removal("/gone")).status, 200U);
    }
  });
  Client client(service.port());
  for (int listing = 0; listing < 40; ++listing) {
    const auto names = namesIn(send(client, {"GET", "/files?path=/Docs", ""}), 0);
    int still = 0;
    for (const std::string& name : names) still += name.starts_with("file ") ? 1 : 0;
    EXPECT_EQ(still, kStill);
  }
  ended = true;
  mover.join();
}

TEST_F(ChangingFolder, AListingOfAFolderThatIsRemovedIsWholeOrNone) {
  constexpr int kFiles = 3000;
  int whole = 0;
  for (int round = 0; round < 5; ++round) {
    service.makeFiles("Docs/Sub", kFiles);
    std::latch start(2);
    std::thread remover([&] {
      start.arrive_and_wait();
      EXPECT_EQ(statusOf(removal("/Docs")), 200U);
    });
    bool gone = false;
    for (int listing = 0; !gone; ++listing) {
      if (listing == 1) start.arrive_and_wait();
      try {
        Client client(service.port());
        const Answer answer = send(client, {"GET", "/files?path=/Docs/Sub", ""});
        gone = answer.status == 404;
        if (!gone) EXPECT_EQ(namesIn(answer, 0).size(), std::size_t{kFiles});
        whole += gone ? 0 : 1;
      } catch (const ConnectionEnded&) {
        // The removal came after the beginning was sent. What matters is that nobody takes the
        // beginning for the whole.
      }
    }
    remover.join();
  }
  EXPECT_GE(whole, 5);
  expectNothingStaged();
}

TEST_F(ChangingFolder, AListingThatLostItsFolderBeforeItsEndIsCutOff) {
  // More than the buffers of a connection hold.
  service.makeFiles("Docs", 50'000);
  Client client(service.port());
  client.send(std::string("GET /files?path=/Docs HTTP/1.1\r\nAuthorization: Bearer ") +
              RunningService::kToken + "\r\n\r\n");
  client.readUntil("\r\n\r\n");
  EXPECT_EQ(statusOf(removal("/Docs")), 200U);
  expectNothingStaged();
  EXPECT_THROW(client.readUntil("]}"), ConnectionEnded);
}

}  // namespace
}  // namespace kestrune::service
