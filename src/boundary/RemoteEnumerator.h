// An enumerator of the extension's program.
//
// What an enumeration reports is handed to its observer when all of it has come, in one piece: whoever finds that the program died
// meanwhile can ask the next one without anybody having seen half an answer.
//
// Threads: as the protocol says; observers and handlers are called, and let go, on the shared executor.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "boundary/Loop.h"
#include "boundary/Wire.h"
#include "platform/file_provider/NSFileProviderEnumerator.h"

namespace kestrune::boundary {

class RemoteEnumerator final : public platform::NSFileProviderEnumerator {
 public:
  /// The answer of the program to the question for an enumerator: filled in in the loop.
  class Coming;

  /// `isGone` is set before anybody is told that the program is gone.
  RemoteEnumerator(std::shared_ptr<Loop> loop, std::shared_ptr<Coming> coming,
                   std::shared_ptr<std::atomic<bool>> isGone)
      : loop_(std::move(loop)), coming_(std::move(coming)), isGone_(std::move(isGone)) {}

  void invalidate() override;
  void enumerateItems(std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                      platform::NSFileProviderPage page) override;
  void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                        platform::NSFileProviderSyncAnchor anchor) override;
  void currentSyncAnchor(std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)>
                             completionHandler) override;

 private:
  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<Coming> coming_;
  const std::shared_ptr<std::atomic<bool>> isGone_;
};

/// Threads: the loop's alone.
class RemoteEnumerator::Coming {
 public:
  /// Exactly one of both is there.
  using Use =
      kj::Function<void(wire::Enumerator::Client* enumerator, const platform::NSErrorPtr& error)>;
  /// Calls `use` as soon as it is known, at once if it is. Pass it as an rvalue: a kj::Function of an lvalue refers to it.
  void with(Use use);
  void came(wire::Enumerator::Client enumerator);
  void failed(platform::NSErrorPtr error);

 private:
  void answer(Use& use);

  kj::Maybe<wire::Enumerator::Client> enumerator_;
  platform::NSErrorPtr error_;
  std::vector<Use> waiting_;
};

}  // namespace kestrune::boundary
