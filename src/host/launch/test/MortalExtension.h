// Extensions that die when a test says so, and a source that has another one for whoever asks then. Every call stays open until the
// test answers it.
//
// Threads: one, the test's.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "boundary/BoundaryError.h"
#include "boundary/test/ProtocolHarness.h"
#include "host/launch/ExtensionSource.h"
#include "host/launch/RepeatedCall.h"

namespace kestrune::host::test {

using namespace platform;  // NOLINT(google-build-using-namespace): every second word here is the platform's
using boundary::Completed;
using boundary::test::TestItem;

/// One call that an extension got.
struct OpenCall {
  std::string what;        // the operation's name
  std::string identifier;  // what it is about; of an enumeration the page or the anchor
  NSRange range;
  ContentStreaming::BytesHandler bytes;
  RepeatedCall::Done done;
  std::shared_ptr<NSFileProviderEnumerationObserver> items;
  std::shared_ptr<NSFileProviderChangeObserver> changes;
  std::function<void(std::optional<NSFileProviderSyncAnchor>)> anchor;
  std::shared_ptr<NSProgress> progress = std::make_shared<NSProgress>(0);

  /// The extension is gone before it answered.
  void die() { answer({.error = boundary::interrupted()}); }
  /// Answers it; once.
  void answer(const Completed& completed) {
    std::exchange(done, nullptr)(completed);
    bytes = {};
  }
  /// The extension forgets it.
  void drop() {
    done = nullptr;
    bytes = {};
    items = nullptr;
    changes = nullptr;
    anchor = nullptr;
  }
};
using OpenCallPtr = std::shared_ptr<OpenCall>;

class MortalSource final : public ExtensionSource {
 public:
  ~MortalSource() override;
  void get(Reply<RunningExtensionPtr> reply) override;
  void end() override { isEnded = true; }

  /// The one that runs is gone from now on: another one is given next.
  void kill();
  /// Kills the one that runs, and lets the last call end as it does then.
  void killInCall();
  /// The call that came last.
  OpenCall& last() const { return *calls.back(); }
  std::size_t count() const { return calls.size(); }
  /// How many callers hold the one that runs.
  std::size_t uses() const;
  /// Gives an extension to whoever waits since `isHolding`.
  void release();

  std::vector<OpenCallPtr> calls;
  /// How many extensions there have been.
  int started = 0;
  bool isEnded = false;
  /// Who asks for an extension waits.
  bool isHolding = false;
  /// Why there is none; null: there is.
  NSErrorPtr refusal;
  /// What enumerators cannot be made for; null: they can.
  NSErrorPtr noEnumerator;
  /// Containers of the enumerators that were made, and how many have been invalidated.
  std::vector<std::string> enumerators;
  int invalidated = 0;
  /// Is run in each call, before it returns.
  std::function<void(OpenCall& call)> inCall;

  NSProgressPtr open(OpenCall call);

 private:
  class Running;
  std::shared_ptr<Running> running_;
  std::vector<Reply<RunningExtensionPtr>> held_;
};

inline NSFileProviderItemPtr anItem(std::string identifier) {
  return TestItem::make({.identifier = std::move(identifier), .parent = {}, .filename = {}});
}

}  // namespace kestrune::host::test
