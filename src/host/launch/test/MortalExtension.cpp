#include "host/launch/test/MortalExtension.h"

namespace kestrune::host::test {

namespace {

using Url = std::optional<std::filesystem::path>;

class MortalEnumerator final : public NSFileProviderEnumerator {
 public:
  explicit MortalEnumerator(MortalSource& source) : source_(source) {}
  void invalidate() override { ++source_.invalidated; }
  void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                      std::string page) override {
    source_.open({.what = "items", .identifier = std::move(page), .items = std::move(observer)});
  }
  void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                        std::string anchor) override {
    source_.open(
        {.what = "changes", .identifier = std::move(anchor), .changes = std::move(observer)});
  }
  void currentSyncAnchor(std::function<void(std::optional<std::string>)> handler) override {
    source_.open({.what = "anchor", .anchor = std::move(handler)});
  }

 private:
  MortalSource& source_;
};

RepeatedCall::Done doneOf(NSFileProviderReplicatedExtension::ChangeHandler handler) {
  return [handler = std::move(handler)](const Completed& completed) {
    handler(completed.item, completed.pendingFields, completed.shouldFetchContent, completed.error);
  };
}

RepeatedCall::Done doneOf(NSFileProviderReplicatedExtension::DoneHandler handler) {
  return [handler = std::move(handler)](const Completed& completed) { handler(completed.error); };
}

class MortalExtension final : public NSFileProviderReplicatedExtension,
                              public NSFileProviderPartialContentFetching,
                              public NSFileProviderCustomAction,
                              public ContentStreaming {
 public:
  explicit MortalExtension(MortalSource& source) : source_(source) {}
  void invalidate() override { ADD_FAILURE() << "its program is ended, it is not told"; }
  NSProgressPtr item(std::string identifier, NSFileProviderRequest, ItemHandler handler) override {
    return open("item", identifier, [handler = std::move(handler)](const Completed& completed) {
      handler(completed.item, completed.error);
    });
  }
  NSProgressPtr fetchContents(std::string identifier, std::optional<NSFileProviderItemVersion>,
                              NSFileProviderRequest, ContentsHandler handler) override {
    return open("fetch", identifier, [handler = std::move(handler)](const Completed& completed) {
      handler(completed.url, completed.item, completed.error);
    });
  }
  NSProgressPtr createItem(NSFileProviderItemPtr item, NSFileProviderItemFields, Url,
                           NSFileProviderCreateItemOptions, NSFileProviderRequest,
                           ChangeHandler handler) override {
    return open("create", item->itemIdentifier(), doneOf(std::move(handler)));
  }
  NSProgressPtr modifyItem(NSFileProviderItemPtr item, NSFileProviderItemVersion,
                           NSFileProviderItemFields, Url, NSFileProviderModifyItemOptions,
                           NSFileProviderRequest, ChangeHandler handler) override {
    return open("modify", item->itemIdentifier(), doneOf(std::move(handler)));
  }
  NSProgressPtr deleteItem(std::string identifier, NSFileProviderItemVersion,
                           NSFileProviderDeleteItemOptions, NSFileProviderRequest,
                           DoneHandler handler) override {
    return open("delete", identifier, doneOf(std::move(handler)));
  }
  NSProgressPtr performAction(std::string action, std::vector<std::string>,
                              DoneHandler handler) override {
    return open("action", action, doneOf(std::move(handler)));
  }
  NSProgressPtr fetchPartialContents(std::string identifier, NSFileProviderItemVersion,
                                     NSFileProviderRequest, NSRange range, std::int64_t,
                                     NSFileProviderFetchContentsOptions,
                                     PartialContentsHandler handler) override {
    return source_.open({.what = "part",
                         .identifier = std::move(identifier),
                         .range = range,
                         .done = [handler = std::move(handler)](const Completed& completed) {
                           handler(completed.url, completed.item, completed.range, completed.flags,
                                   completed.error);
                         }});
  }
  NSProgressPtr streamContents(std::string identifier, NSFileProviderItemVersion,
                               NSFileProviderRequest, NSRange range, BytesHandler bytes,
                               EndHandler handler) override {
    return source_.open({.what = "stream",
                         .identifier = std::move(identifier),
                         .range = range,
                         .bytes = std::move(bytes),
                         .done = [handler = std::move(handler)](const Completed& completed) {
                           handler(completed.item, completed.error);
                         }});
  }
  std::shared_ptr<NSFileProviderEnumerator> enumerator(std::string container,
                                                       NSFileProviderRequest) override {
    if (source_.noEnumerator) source_.noEnumerator->raise();
    source_.enumerators.push_back(std::move(container));
    return std::make_shared<MortalEnumerator>(source_);
  }

 private:
  NSProgressPtr open(std::string what, std::string identifier, RepeatedCall::Done done) {
    return source_.open(
        {.what = std::move(what), .identifier = std::move(identifier), .done = std::move(done)});
  }

  MortalSource& source_;
};

}  // namespace

class MortalSource::Running final : public RunningExtension {
 public:
  explicit Running(MortalSource& source) : extension_(std::make_shared<MortalExtension>(source)) {}
  const std::shared_ptr<NSFileProviderReplicatedExtension>& extension() const override {
    return extension_;
  }
  bool isGone() const override { return isGone_; }
  void kill() { isGone_ = true; }

 private:
  const std::shared_ptr<NSFileProviderReplicatedExtension> extension_;
  bool isGone_ = false;
};

MortalSource::~MortalSource() = default;

void MortalSource::get(Reply<RunningExtensionPtr> reply) {
  if (refusal) return reply(refusal);
  if (isHolding) return held_.push_back(std::move(reply));
  if (!running_ || running_->isGone()) {
    running_ = std::make_shared<Running>(*this);
    ++started;
  }
  reply(RunningExtensionPtr(running_));
}

void MortalSource::release() {
  isHolding = false;
  for (const auto& reply : std::exchange(held_, {})) get(reply);
}

void MortalSource::kill() { running_->kill(); }

void MortalSource::killInCall() {
  kill();
  const OpenCallPtr call = calls.back();
  if (call->items)
    return std::exchange(call->items, nullptr)->finishEnumeratingWithError(boundary::interrupted());
  if (call->changes)
    return std::exchange(call->changes, nullptr)
        ->finishEnumeratingWithError(boundary::interrupted());
  if (call->anchor) return std::exchange(call->anchor, nullptr)(std::nullopt);
  call->die();
}

std::size_t MortalSource::uses() const {
  return static_cast<std::size_t>(running_.use_count()) - 1;
}

NSProgressPtr MortalSource::open(OpenCall call) {
  const auto kept = std::make_shared<OpenCall>(std::move(call));
  calls.push_back(kept);
  if (inCall) inCall(*kept);
  return kept->progress;
}

}  // namespace kestrune::host::test
