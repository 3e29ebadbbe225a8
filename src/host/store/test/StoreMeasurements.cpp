// What the store costs, printed; nothing here fails because of a slow machine. KESTRUNE_ROWS sets the number of rows.
#include <SQLiteCpp/Transaction.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <vector>

#include "host/store/ItemStore.h"
#include "host/store/test/SampleRows.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

using Survives = Database::Survives;
using Seconds = std::chrono::duration<double>;

class Stopwatch {
 public:
  double seconds() const { return Seconds(std::chrono::steady_clock::now() - begun_).count(); }

 private:
  std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

/// Of ten items that are known one has contents here.
ItemRow knownItem(ItemId id) {
  ItemRow row = sampleFile(id);
  if (id % 10 != 0) row.content.reset();
  return row;
}

struct StoreMeasurements : testing::Test {
  std::filesystem::path file() const { return directory.path() / "items.sqlite"; }
  support::TemporaryDirectory directory;
};

TEST_F(StoreMeasurements, ManyRows) {
  const char* wanted = std::getenv("KESTRUNE_ROWS");  // NOLINT(concurrency-mt-unsafe)
  const auto rows = wanted ? std::strtoull(wanted, nullptr, 10) : 20'000ULL;
  for (const char* what : {"new", "replaced"}) {
    const auto opened = openItems(file());
    ItemTable table(opened.database->connection());
    const Stopwatch watch;
    SQLite::Transaction transaction(opened.database->connection());
    for (ItemId id = 2; id < rows + 2; ++id) table.put(knownItem(id));
    transaction.commit();
    std::printf("%s: %.0f rows/s\n", what, static_cast<double>(rows) / watch.seconds());
  }
  const Stopwatch opening;
  const auto opened = openItems(file());
  std::printf("opened: %.3f s, %.0f bytes a row\n", opening.seconds(),
              static_cast<double>(std::filesystem::file_size(file())) / static_cast<double>(rows));
  const Stopwatch watch;
  std::uint64_t count = 0;
  ItemTable(opened.database->connection()).load([&](const ItemRow& row) {
    count += row.there ? 1 : 0;
  });
  std::printf("loaded: %llu rows in %.3f s\n", static_cast<unsigned long long>(count),
              watch.seconds());
  EXPECT_EQ(count, rows);
}

TEST_F(StoreMeasurements, SingleCommits) {
  ItemStore store(openItems(file()).database);
  const auto commit = [&](ItemId id, Survives survives) {
    std::promise<bool> done;
    store.commit({sampleFile(id)}, {}, {}, survives,
                 [&](const Answer<Done>& answer) { done.set_value(answer.ok()); });
    return done.get_future().get();
  };
  const auto measure = [&](const char* what, Survives survives, ItemId count) {
    std::vector<double> times;
    for (ItemId id = 2; id < count + 2; ++id) {
      const Stopwatch watch;
      ASSERT_TRUE(commit(id, survives));
      times.push_back(watch.seconds() * 1e6);
    }
    std::sort(times.begin(), times.end());
    std::printf("%s: median %.0f us, 99 of 100 below %.0f us, at most %.0f us\n", what,
                times[times.size() / 2], times[times.size() * 99 / 100], times.back());
  };
  measure("survives the process's end", Survives::processEnd, 2000);
  measure("survives a power cut", Survives::powerCut, 100);
}

TEST_F(StoreMeasurements, ManyCommitsAtOnce) {
  for (const Survives survives : {Survives::processEnd, Survives::powerCut}) {
    ItemStore store(openItems(file()).database);
    std::promise<void> last;
    const Stopwatch watch;
    for (ItemId id = 2; id < 2002; ++id) {
      store.commit({sampleFile(id)}, {}, {}, survives, [&, id](const Answer<Done>& answer) {
        EXPECT_TRUE(answer.ok());
        if (id == 2001) last.set_value();
      });
    }
    const double accepted = watch.seconds();
    last.get_future().get();
    std::printf("2,000 commits at once, %s: accepted in %.1f ms, answered in %.1f ms\n",
                survives == Survives::powerCut ? "for a power cut" : "for the process's end",
                accepted * 1e3, watch.seconds() * 1e3);
  }
}

}  // namespace
}  // namespace kestrune::host
