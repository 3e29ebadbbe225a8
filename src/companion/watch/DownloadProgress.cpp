#include "companion/watch/DownloadProgress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "companion/control/ControlText.h"
#include "companion/terminal/ProgressLine.h"
#include "companion/watch/StatusRecord.h"
#include "companion/watch/TransferRates.h"

namespace kestrune {

namespace {

constexpr std::chrono::milliseconds kInterval{500};

std::string textOf(const std::vector<SyncTransfer>& transfers, const TransferRates& rates) {
  std::uint64_t count = 0;
  std::int64_t done = 0;
  std::int64_t total = 0;
  double rate = 0;
  for (const SyncTransfer& transfer : transfers) {
    if (transfer.direction != SyncTransfer::Direction::download) continue;
    ++count;
    done += transfer.bytesTransferred;
    total += transfer.totalBytes;
    rate += rates.rateOf(transfer.id).value_or(0);
  }
  if (count == 0) return "waiting for the host";
  const auto size = [](auto bytes) {
    return sizeText(static_cast<std::uint64_t>(std::max<decltype(bytes)>(bytes, 0)));
  };
  return std::to_string(count) + (count == 1 ? " download: " : " downloads: ") + size(done) +
         " of " + size(total) + ", " + size(rate) + "/s";
}

void show(std::binary_semaphore& ended, ProgressLine& line) {
  TransferRates rates;
  do {
    const auto transfers = presentTransfers();
    rates.saw(transfers, TransferRates::Clock::now());
    line.show(textOf(transfers, rates));
  } while (!ended.try_acquire_for(kInterval));
}

/// Shows while it lives.
class Shower {
 public:
  explicit Shower(ProgressLine& line) : thread_([this, &line] { show(ended_, line); }) {}
  ~Shower() {
    ended_.release();
    thread_.join();
  }
  Shower(const Shower&) = delete;
  Shower& operator=(const Shower&) = delete;

 private:
  std::binary_semaphore ended_{0};
  std::thread thread_;
};

}  // namespace

void showingDownloads(const std::function<void()>& work) {
  ProgressLine line(STDERR_FILENO);
  if (!line.isShown()) return work();
  const Shower shower(line);
  work();
}

}  // namespace kestrune
