// The mount on a bus, over a host in the test's hands.
#include "desktop/DesktopService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>

#include "desktop/MountList.h"
#include "desktop/test/PrivateBus.h"
#include "host/control/test/FakeHostControl.h"

namespace kestrune::desktop::test {

namespace {

using host::EntryState;
using host::FakeHostControl;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

EntryState entry(const std::string& name, std::uint64_t size, std::uint64_t here, bool isPinned) {
  EntryState entry{name, {}};
  entry.state.sizeBytes = size;
  entry.state.bytesHere = here;
  entry.state.isPinned = isPinned;
  return entry;
}

class DesktopServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (PrivateBus::isMissing()) GTEST_SKIP() << "there is no dbus-daemon (package dbus)";
    bus_.emplace();
    bus_->start();
  }
  static MountFacts facts(const std::string& mountPoint) { return {mountPoint, "main", "1.2.3"}; }
  DesktopService& serve() { return service_.emplace(facts("/home/me/\xE9t\xE9"), control_); }
  static bool waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 2000; ++i) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  std::optional<PrivateBus> bus_;
  FakeHostControl control_;
  std::optional<DesktopService> service_;
};

TEST_F(DesktopServiceTest, TellsAFolderInOneAnswer) {
  control_.setEntries("/docs", {entry("a", 10, 0, false), entry("b", 10, 10, true),
                                entry("\xFF bytes", 10, 4, true)});
  serve();
  BusClient client;
  const std::string host = client.waitForHosts(1)[0];
  using State = BusClient::State;
  EXPECT_THAT(client.folderStates(host, "/docs"),
              UnorderedElementsAre(testing::Pair("a", State{"online-only", false}),
                                   testing::Pair("b", State{"kept", true}),
                                   testing::Pair("\xFF bytes", State{"partly", true})));
  EXPECT_EQ(control_.callCount("folderStates /docs"), 1U);
}

TEST_F(DesktopServiceTest, SaysWhatIsWrongWithAFolder) {
  serve();
  BusClient client;
  const std::string host = client.waitForHosts(1)[0];
  const auto errorOf = [&](const std::string& folder) {
    std::string error;
    EXPECT_FALSE(client.call(
        host, "FolderStates", [&](sd_bus_message* call) { appendBytes(call, folder); }, error));
    return error;
  };
  EXPECT_EQ(errorOf("/missing"), SD_BUS_ERROR_FILE_NOT_FOUND);
  for (const char* folder : {"", "docs", "/docs/", "/a/../b", "//"})
    EXPECT_EQ(errorOf(folder), SD_BUS_ERROR_INVALID_ARGS) << folder;
  EXPECT_EQ(control_.calls().size(),
            1U + control_.callCount("condition") + control_.callCount("pending / 100"));
}

TEST_F(DesktopServiceTest, ActsOnPathsWithAnAnswerForEach) {
  control_.setPending("/a", {});
  serve();
  BusClient client;
  const std::string host = client.waitForHosts(1)[0];
  EXPECT_THAT(client.act(host, "Pin", {"/a", "/gone"}),
              ElementsAre("", testing::HasSubstr("/gone")));
  EXPECT_THAT(client.act(host, "Unpin", {"/a"}), ElementsAre(""));
  EXPECT_THAT(client.act(host, "Evict", {"/a"}), ElementsAre(""));
  EXPECT_THAT(client.act(host, "Download", {"/a"}), ElementsAre(""));
  for (const char* call : {"pin /a /gone", "unpin /a", "evict /a", "download /a"})
    EXPECT_EQ(control_.callCount(call), 1U) << call;

  std::string error;
  const MessagePtr answer = client.call(
      host, "Links",
      [](sd_bus_message* call) {
        appendPaths(call, {"/a", "/gone"});
      },
      error);
  ASSERT_TRUE(answer) << error;
  const char* link = nullptr;
  const char* why = nullptr;
  check(sd_bus_message_enter_container(answer.get(), 'a', "(ss)"), "read");
  check(sd_bus_message_read(answer.get(), "(ss)", &link, &why), "read");
  EXPECT_STREQ(link, "https://share.test/a");
  EXPECT_STREQ(why, "");
  check(sd_bus_message_read(answer.get(), "(ss)", &link, &why), "read");
  EXPECT_STREQ(link, "");
  EXPECT_THAT(why, testing::HasSubstr("/gone"));
}

TEST_F(DesktopServiceTest, ACallThatTakesLongHoldsUpNobody) {
  control_.setPending("/a", {});
  serve();
  BusClient client;
  const std::string host = client.waitForHosts(1)[0];
  control_.hold();
  std::vector<std::string> errors;
  std::thread waiting([&] {
    BusClient other;
    errors = other.act(host, "Download", {"/a"});
  });
  ASSERT_TRUE(waitUntil([this] { return control_.callCount("download /a") == 1; }));
  std::string mountPoint;
  EXPECT_GE(readBytes(client.property(host, "MountPoint", "ay").get(), mountPoint), 0);
  EXPECT_EQ(mountPoint, "/home/me/\xE9t\xE9");
  control_.release();
  waiting.join();
  EXPECT_THAT(errors, ElementsAre(""));
}

TEST_F(DesktopServiceTest, AnswersThatComeAfterTheEndGoNowhere) {
  serve();
  BusClient client;
  const std::string host = client.waitForHosts(1)[0];
  control_.hold();
  std::thread waiting([&] {
    BusClient other;
    EXPECT_THROW(other.act(host, "Download", {"/a"}), std::runtime_error);
  });
  ASSERT_TRUE(waitUntil([this] { return control_.callCount("download /a") == 1; }));
  service_.reset();
  waiting.join();
  EXPECT_FALSE(control_.isWatched());
  control_.release();
}

TEST_F(DesktopServiceTest, TellsOfChangesTogetherAndOnlyWhereSomebodyAsked) {
  control_.setEntries("/docs", {});
  serve();
  BusClient client;
  client.listen();
  const std::string host = client.waitForHosts(1)[0];
  client.folderStates(host, "/docs");
  for (int i = 0; i < 50; ++i) control_.change({{"/docs", "/other"}, {}});
  EXPECT_THAT(client.takeSignals(1), ElementsAre("StatesChanged /docs"));
  // A change every 20 ms for a second is told a few times.
  int told = 0;
  for (int i = 0; i < 50; ++i) {
    control_.change({{"/docs"}, {}});
    told += static_cast<int>(client.takeSignalsFor(std::chrono::milliseconds(20)).size());
  }
  EXPECT_GE(told, 1);
  EXPECT_LE(told, 8);
}

TEST_F(DesktopServiceTest, TellsHowManyChangesWaitAndWhatIsWrong) {
  host::PendingChange change = host::pendingSend("/docs/a", "no more space");
  change.attempts = 1;
  change.isRefused = true;
  control_.setPending("/", {});
  serve();
  BusClient client;
  client.listen();
  const std::string host = client.waitForHosts(1)[0];
  ASSERT_TRUE(waitUntil([this] { return control_.callCount("pending / 100") > 0; }));
  control_.setPending("/", {7, {change}});
  control_.change({});
  EXPECT_THAT(client.takeSignals(2),
              ElementsAre("PropertiesChanged PendingCount", "PropertiesChanged Problems"));
  std::uint64_t count = 0;
  check(sd_bus_message_read(client.property(host, "PendingCount", "t").get(), "t", &count), "read");
  EXPECT_EQ(count, 7U);
  EXPECT_EQ(control_.callCount("status"), 0U);  // which looks at every item
  const MessagePtr problems = client.property(host, "Problems", "as");
  const char* problem = nullptr;
  check(sd_bus_message_enter_container(problems.get(), 'a', "s"), "read");
  check(sd_bus_message_read(problems.get(), "s", &problem), "read");
  EXPECT_STREQ(problem, "/docs/a: no more space");
}

TEST_F(DesktopServiceTest, SeveralHostsAreListedByWhoeverIsThere) {
  FakeHostControl other;
  serve();
  std::optional<DesktopService> second(std::in_place, facts("/home/me/second"), other);
  BusClient client;
  client.waitForHosts(2);
  const auto mounts = [&client] {
    sd_bus_message* answered = nullptr;
    check(sd_bus_call_method(client.bus(), kBusName, kManagerPath, kManagerInterface, "Mounts",
                             nullptr, &answered, nullptr),
          "ask for the mounts");
    const MessagePtr answer(answered);
    std::map<std::string, std::string> found;
    check(sd_bus_message_enter_container(answered, 'a', "(soay)"), "read");
    while (check(sd_bus_message_enter_container(answered, 'r', "soay"), "read") > 0) {
      const char* name = nullptr;
      const char* object = nullptr;
      std::string mountPoint;
      check(sd_bus_message_read(answered, "so", &name, &object), "read");
      check(readBytes(answered, mountPoint), "read");
      check(sd_bus_message_exit_container(answered), "read");
      EXPECT_STREQ(object, kMountPath);
      found[mountPoint] = name;
    }
    return found;
  };
  const auto both = mounts();
  ASSERT_EQ(both.size(), 2U);
  EXPECT_NE(both.at("/home/me/second"), both.at("/home/me/\xE9t\xE9"));
  // Whoever had the common name: the other one has it now.
  service_.reset();
  client.waitForHosts(1);
  EXPECT_THAT(mounts(), ElementsAre(testing::Pair("/home/me/second", both.at("/home/me/second"))));
}

TEST_F(DesktopServiceTest, GoesOnWithoutABusAndComesBackWithIt) {
  bus_->stop();
  serve();
  EXPECT_FALSE(control_.isWatched());
  bus_->start();
  {
    BusClient client;
    client.waitForHosts(1);
    ASSERT_TRUE(waitUntil([this] { return control_.isWatched(); }));
  }
  bus_->stop();
  ASSERT_TRUE(waitUntil([this] { return !control_.isWatched(); }));
  bus_->start();
  BusClient client;
  client.waitForHosts(1);
}

TEST_F(DesktopServiceTest, TenThousandEntriesTakeLittleTime) {
  std::vector<EntryState> entries;
  for (int i = 0; i < 10'000; ++i)
    entries.push_back(entry("IMG_" + std::to_string(100'000 + i) + ".jpeg", 10, 0, false));
  control_.setEntries("/photos", std::move(entries));
  serve();
  BusClient client;
  const std::string host = client.waitForHosts(1)[0];
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(client.folderStates(host, "/photos").size(), 10'000U);
  const auto took = std::chrono::steady_clock::now() - begin;
  RecordProperty("milliseconds",
                 static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(took).count()));
  EXPECT_LT(took, std::chrono::seconds(2));  // a bound for the slowest of machines
  std::printf("10,000 entries: %.1f ms\n", std::chrono::duration<double, std::milli>(took).count());
}

}  // namespace

}  // namespace kestrune::desktop::test
