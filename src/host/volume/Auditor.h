// Compares what is known of the store with what the store has, one folder at a time and slowly: for stores that change without
// saying so, and for whatever this program may have got wrong. What differs is brought in like any other change.
//
// Budget: one listing every ten minutes, of the folder that was listed as a whole longest ago; nothing while the store cannot be
// reached but that one question.
//
// Threads: every operation may be called from any thread and returns at once.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "host/control/HostControl.h"
#include "host/volume/FolderLister.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class Auditor : public std::enable_shared_from_this<Auditor> {
 public:
  static constexpr std::chrono::minutes kEvery{10};

  Auditor(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister)
      : volume_(std::move(volume)), lister_(std::move(lister)) {}

  /// The first folder is compared when the time between two has passed.
  void begin();
  /// Nothing is begun any more.
  void stop();
  /// The last comparison; none before the first.
  std::optional<AuditReport> last() const;

 private:
  void waitForNext();
  void compareOne();
  std::optional<ItemId> next();
  void compared(ItemId folder, const Answer<std::size_t>& differences);

  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<FolderLister> lister_;
  mutable platform::Mutex mutex_;
  bool stopped_ GUARDED_BY(mutex_) = false;
  Timers::Token timer_ GUARDED_BY(mutex_) = 0;
  std::optional<AuditReport> last_ GUARDED_BY(mutex_);
  /// The last folder whose comparison failed: another one is next.
  ItemId failed_ GUARDED_BY(mutex_) = 0;
};

}  // namespace kestrune::host
