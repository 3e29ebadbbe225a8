// What callers see of programs that die: nothing but a delay.

#include <sys/stat.h>

#include <future>

#include "host/launch/LaunchedExtension.h"
#include "host/launch/test/LauncherHarness.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemPtr;

// A program that another one starts, whose end is therefore known later than that of the connection.
ProgramCommand behindAnother() {
  return {{"/bin/sh", "-c",
           KESTRUNE_BIN_DIR
           "/kestrune_fragile_program & exec 3>&-; wait $!; code=$?; sleep 0.3; exit $code"},
          {{"PATH", "/bin:/usr/bin"}}};
}

class LaunchedProgramTest : public LauncherTest {
 protected:
  LaunchedProgramTest() {
    auto options = this->options();
    options.command = &behindAnother;
    launch(std::move(options));
    extension = makeLaunchedExtension(launcher, {.streams = true});
    enumerator = extension->enumerator(temporary.path() / "flag", {});
  }
  ~LaunchedProgramTest() override {
    // A death is known in the end, also when the next program has long begun.
    EXPECT_TRUE(support::waitUntil([this] { return launcher->status().deaths == 1; }));
    EXPECT_EQ(launcher->status().lastDeath, "signal 9 (Killed)");
    EXPECT_EQ(launcher->status().starts, 2U);
    EXPECT_TRUE(support::waitUntil([this] { return reports().size() == 1; }));
    enumerator = nullptr;
    extension = nullptr;
  }

  std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension;
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator;
};

class ItemsTold final : public platform::NSFileProviderEnumerationObserver,
                        public platform::NSFileProviderChangeObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    count += items.size();
  }
  void finishEnumeratingUpToPage(std::optional<std::string>) override { end.set_value(nullptr); }
  void didUpdateItems(std::vector<NSFileProviderItemPtr>) override {}
  void didDeleteItemsWithIdentifiers(std::vector<std::string>) override {}
  void finishEnumeratingChangesUpToSyncAnchor(std::string, bool) override {
    end.set_value(nullptr);
  }
  void finishEnumeratingWithError(NSErrorPtr error) override { end.set_value(std::move(error)); }

  std::string wait() {
    auto future = end.get_future();
    if (future.wait_for(boundary::test::kSoon) != std::future_status::ready) return "nothing";
    const NSErrorPtr error = future.get();
    return error ? error->localizedDescription() : "";
  }
  std::size_t count = 0;
  std::promise<NSErrorPtr> end;
};

TEST_F(LaunchedProgramTest, ItemsAreEnumeratedByTheNextOne) {
  const auto told = std::make_shared<ItemsTold>();
  enumerator->enumerateItems(told, "");
  EXPECT_EQ(told->wait(), "");
  EXPECT_EQ(told->count, 1U);
}

TEST_F(LaunchedProgramTest, ChangesAreEnumeratedByTheNextOne) {
  const auto told = std::make_shared<ItemsTold>();
  enumerator->enumerateChanges(told, "");
  EXPECT_EQ(told->wait(), "");
}

TEST_F(LaunchedProgramTest, TheAnchorIsTheNextOnes) {
  boundary::test::Told<std::optional<std::string>> told;
  enumerator->currentSyncAnchor(told.handler());
  EXPECT_EQ(std::get<0>(told.wait()), "here");
}

}  // namespace
}  // namespace kestrune::host::test
