// One whole-file download at a time, with everything that it is told and asked for written down.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/Directories.h"
#include "platform/progress/NSProgress.h"
#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"
#include "status/SyncStatusStore.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/DetachedTasks.h"
#include "tests/support/ManualTime.h"
#include "tests/support/ServiceFixture.h"
#include "transfer/WholeFileDownload.h"

namespace kestrune {

class DownloadTesting : public testing::Test {
 protected:
  /// What the completion handler was given, and how things stood then.
  struct Outcome {
    int calls = 0;
    std::optional<std::filesystem::path> url;
    platform::NSFileProviderItemPtr item;
    platform::NSErrorPtr error;
    std::int64_t progress = -1;
    std::vector<SyncTransfer> transfers;
  };

  // Some tests take the directory away in the middle of a download.
  DownloadTesting() { platform::setTemporaryDirectory(service_.storage().temporary()); }
  ~DownloadTesting() override { EXPECT_TRUE(transfers().empty()) << "a transfer stays registered"; }

  /// Begins a download that tells `progress_` and `outcome()`.
  support::DetachedTasks start(const std::string& path) {
    return support::DetachedTasks([&] {
      WholeFileDownload download;
      download.path = path;
      download.progress = progress_;
      download.session = session_;
      download.sleeper = sleeper_;
      download.completionHandler = [this](auto url, auto item, auto error) {
        const std::vector<SyncTransfer> running = transfers();
        platform::MutexLock lock(mutex_);
        ++outcome_.calls;
        outcome_.url = url;
        outcome_.item = item;
        outcome_.error = error;
        outcome_.progress = progress_->completedUnitCount();
        outcome_.transfers = running;
      };
      platform::spawnDetached("download", runWholeFileDownload(std::move(download)));
    });
  }

  Outcome fetch(const std::string& path) {
    const support::DetachedTasks tasks = start(path);
    EXPECT_TRUE(tasks.waitUntilEnded());
    EXPECT_EQ(outcome().calls, 1);
    return outcome();
  }

  Outcome outcome() const {
    platform::MutexLock lock(mutex_);
    return outcome_;
  }

  /// The transfers in the status file now; none if there is no file.
  std::vector<SyncTransfer> transfers() const {
    SyncStatusStore::shared().drain();
    const auto file = service_.storage().shared() / "sync-status.json";
    if (!std::filesystem::exists(file)) return {};
    return SyncStatus::decode(support::contentsOf(file)).transfers;
  }
  std::int64_t bytesTransferred() const {
    const auto running = transfers();
    return running.empty() ? -1 : running.front().bytesTransferred;
  }

  support::ServiceFixture service_;
  const support::CapturingLogSink log_;
  const platform::NSProgressPtr progress_ = std::make_shared<platform::NSProgress>(100);
  std::shared_ptr<platform::URLSession> session_ =
      std::make_shared<platform::URLSession>(platform::URLSessionConfiguration());
  std::shared_ptr<support::ManualSleeper> manualSleeper_ =
      std::make_shared<support::ManualSleeper>();
  std::shared_ptr<platform::Sleeper> sleeper_ = manualSleeper_;

 private:
  mutable platform::Mutex mutex_;
  Outcome outcome_ GUARDED_BY(mutex_);
};

}  // namespace kestrune
