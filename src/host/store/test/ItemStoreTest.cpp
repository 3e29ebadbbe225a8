#include "host/store/ItemStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <future>

#include "host/store/test/SampleRows.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::host {
namespace {

using Survives = Database::Survives;
using testing::ElementsAre;

Reply<Done> expectDone() {
  return [](const Answer<Done>& answer) {
    EXPECT_TRUE(answer.ok()) << answer.error()->localizedDescription();
  };
}

/// Null if it was done.
platform::NSErrorPtr errorOfPut(ItemStore& store, ItemRow row,
                                Survives survives = Survives::processEnd) {
  std::promise<platform::NSErrorPtr> promise;
  store.commit({std::move(row)}, {}, {}, survives, [&](const Answer<Done>& answer) {
    promise.set_value(answer.ok() ? nullptr : answer.error());
  });
  return promise.get_future().get();
}

std::map<std::string, std::string> attributesOf(ItemStore& store, ItemId id) {
  std::promise<std::map<std::string, std::string>> promise;
  store.attributes(id, [&](Answer<std::map<std::string, std::string>> answer) {
    promise.set_value(answer.ok() ? std::move(answer.value())
                                  : std::map<std::string, std::string>{{"failed", ""}});
  });
  return promise.get_future().get();
}

std::vector<ItemId> idsIn(const std::filesystem::path& file) {
  OpenedItems opened = openItems(file);
  EXPECT_EQ(opened.setAside, "");
  ItemStore store(std::move(opened.database));
  std::vector<ItemId> ids;
  store.load([&](const ItemRow& row) { ids.push_back(row.id); });
  return ids;
}

struct ItemStoreTest : testing::Test {
  std::filesystem::path file() const { return directory.path() / "items.sqlite"; }
  support::TemporaryDirectory directory;
};

TEST_F(ItemStoreTest, KeepsWhatWasCommittedUntilTheNextTime) {
  {
    ItemStore store(openItems(file()).database);
    EXPECT_EQ(store.counter("nextItem"), 0U);
    store.commit({sampleFile(2), sampleFolder(3)}, {}, {{"nextItem", 4}}, Survives::processEnd,
                 expectDone());
    store.putAttribute(2, "user.a", "value", Survives::processEnd, expectDone());
    store.commit({bareRow(2), sampleFile(4), sampleFile(5)}, {3, 5}, {{"nextItem", 6}},
                 Survives::powerCut, expectDone());
  }
  ItemStore store(openItems(file()).database);
  std::vector<ItemRow> rows;
  store.load([&](ItemRow row) { rows.push_back(std::move(row)); });
  EXPECT_THAT(rows, ElementsAre(bareRow(2), sampleFile(4)));
  EXPECT_EQ(store.counter("nextItem"), 6U);
  EXPECT_THAT(attributesOf(store, 2), ElementsAre(testing::Pair("user.a", "value")));
}

TEST_F(ItemStoreTest, AnswersInOrderAndAttributesSeeWhatCameBefore) {
  std::vector<int> order;
  std::map<std::string, std::string> seen;
  {
    ItemStore store(openItems(file()).database);
    for (int n = 0; n < 300; n += 3) {
      const auto note = [&order](int number) {
        return [&order, number](const Answer<Done>& answer) {
          EXPECT_TRUE(answer.ok());
          order.push_back(number);
        };
      };
      const std::string value = std::to_string(n);
      store.commit({sampleFile(static_cast<ItemId>(n) + 2)}, {}, {}, Survives::processEnd, note(n));
      store.putAttribute(2, "user.n", value, Survives::processEnd, note(n + 1));
      store.attributes(2, [&, n, value](const Answer<std::map<std::string, std::string>>& answer) {
        order.push_back(n + 2);
        EXPECT_EQ(answer.value().at("user.n"), value);
      });
      store.putAttribute(2, "user.n", std::nullopt, Survives::processEnd, expectDone());
    }
  }
  ASSERT_EQ(order.size(), 300U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(ItemStoreTest, AChangeThatIsRefusedChangesNothingAndHoldsUpNobody) {
  auto open = std::make_unique<ItemStore>(openItems(file()).database);
  ItemStore& store = *open;
  ItemRow bad = sampleFile(3);
  bad.sizeBytes = -1;
  std::promise<platform::NSErrorPtr> refused;
  store.commit({sampleFile(2)}, {}, {}, Survives::processEnd, expectDone());
  store.commit({sampleFile(4), bad}, {2}, {{"nextItem", 9}}, Survives::processEnd,
               [&](const Answer<Done>& answer) {
                 refused.set_value(answer.ok() ? nullptr : answer.error());
               });
  store.commit({sampleFile(5)}, {}, {}, Survives::processEnd, expectDone());
  const auto error = refused.get_future().get();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), StoreError::kDomain);
  EXPECT_EQ(errorOfPut(store, sampleFile(6)), nullptr);
  open.reset();
  EXPECT_THAT(idsIn(file()), ElementsAre(2, 5, 6));
}

// A file system of 1 MiB is filled by the store itself; later there is room again.
TEST_F(ItemStoreTest, AFullDiskIsAnsweredAndAfterItEverythingWorksAgain) {
  const auto small = directory.path() / "small";
  std::filesystem::create_directory(small);
  if (::mount("none", small.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "needs root";
  struct Unmount {
    std::filesystem::path path;
    ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
  } const unmount{small};
  const auto filler = small / "filler";
  std::ofstream(filler) << std::string(300'000, 'x');

  std::vector<ItemId> kept;
  platform::NSErrorPtr error;
  {
    ItemStore store(openItems(small / "items.sqlite").database);
    ItemRow row = sampleFile(2);
    row.there->identifier = std::string(2000, 'i');
    for (; !error && row.id < 5000; ++row.id) {
      error = errorOfPut(store, row, row.id % 10 == 0 ? Survives::powerCut : Survives::processEnd);
      if (!error) kept.push_back(row.id);
    }
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), platform::kNSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), ENOSPC);
    EXPECT_NE(errorOfPut(store, row), nullptr);  // still full

    std::filesystem::remove(filler);
    row.id = 6000;
    EXPECT_EQ(errorOfPut(store, row), nullptr);
    kept.push_back(row.id);
  }
  EXPECT_GT(kept.size(), 10U);
  EXPECT_EQ(idsIn(small / "items.sqlite"), kept);
}

// The process is killed at a random moment; every change that was answered before is there, and each whole or not at all.
TEST_F(ItemStoreTest, AnsweredChangesSurviveAKill) {
  for (int round = 0; round < 5; ++round) {
    for (const char* suffix : {"", "-wal", "-shm"})
      std::filesystem::remove(file().string() + suffix);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ItemStore store(openItems(file()).database);
      for (ItemId id = 10;; id += 2) {
        store.commit({sampleFile(id), sampleFile(id + 1)}, {}, {{"nextItem", id + 2}},
                     Survives::processEnd, [id, &ends](const Answer<Done>& answer) {
                       if (answer.ok() && ::write(ends[1], &id, sizeof id) != sizeof id) ::_exit(1);
                     });
        if (id % 50 == 0) ::usleep(100);
      }
    }
    ::close(ends[1]);
    ItemId last = 0;
    const ItemId enough = 200 + static_cast<ItemId>(round) * 138;
    ItemId id = 0;
    while (last < enough && ::read(ends[0], &id, sizeof id) == sizeof id) last = id;
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    while (::read(ends[0], &id, sizeof id) == sizeof id) last = id;
    ::close(ends[0]);
    ASSERT_GE(last, enough);

    OpenedItems opened = openItems(file());
    ASSERT_EQ(opened.setAside, "") << opened.reason;
    ItemStore store(std::move(opened.database));
    ItemId next = 10;
    store.load([&](const ItemRow& row) { EXPECT_EQ(row, sampleFile(next++)); });
    EXPECT_EQ(next % 2, 0U);
    EXPECT_GE(next, last + 2);
    EXPECT_EQ(store.counter("nextItem"), next);
  }
}

}  // namespace
}  // namespace kestrune::host
