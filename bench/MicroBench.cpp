// The two operations whose cost their callers feel: recording a read, and reporting progress.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "status/SyncStatusStore.h"
#include "transfer/PrefetchTracker.h"

namespace {

// With this many live records, since each call looks for stale ones.
void recordAndAdviseWithLiveRecords(benchmark::State& state) {
  kestrune::PrefetchTracker tracker(std::make_shared<kestrune::platform::SystemClock>());
  const auto records = state.range(0);
  for (std::int64_t i = 0; i < records; ++i)
    tracker.recordAndAdvise("/folder/file-" + std::to_string(i), 0, 65536);
  const std::string item = "/folder/file-0";
  std::int64_t offset = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tracker.recordAndAdvise(item, offset, offset + 65536));
    offset += 65536;
  }
}
BENCHMARK(recordAndAdviseWithLiveRecords)->Arg(1000)->Unit(benchmark::kMicrosecond);

// What the caller waits for; the file is written by the store's own thread. The queue is drained
// now and then, outside the measured time, as it drains between real reports.
void updateReturnsToItsCaller(benchmark::State& state) {
  auto& store = kestrune::SyncStatusStore::shared();
  const std::string id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  store.begin(id, "/folder/file", 1 << 30, kestrune::SyncTransfer::Direction::download);
  std::int64_t bytes = 0;
  for (auto _ : state) {
    store.update(id, ++bytes);
    if (bytes % 64 == 0) {
      state.PauseTiming();
      store.drain();
      state.ResumeTiming();
    }
  }
  store.finish(id);
  store.drain();
}
BENCHMARK(updateReturnsToItsCaller)->Iterations(20000)->Unit(benchmark::kMicrosecond);

}  // namespace
