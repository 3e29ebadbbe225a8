#include "host/volume/ExtensionCalls.h"

#include <cerrno>
#include <map>
#include <utility>

#include "host/basics/ErrorToErrno.h"
#include "host/basics/OnceReply.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Continuation.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderItemFields;
using platform::NSFileProviderItemPtr;
using platform::NSPOSIXError;
using platform::NSProgressPtr;
using platform::Task;

class TemplateItem final : public platform::NSFileProviderItem {
 public:
  explicit TemplateItem(OutgoingTemplate item) : item_(std::move(item)) {}
  platform::NSFileProviderItemIdentifier itemIdentifier() const override {
    return item_.identifier;
  }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override {
    return item_.parentIdentifier;
  }
  std::string filename() const override { return item_.name; }
  std::optional<platform::UTType> contentType() const override {
    return item_.isFolder ? platform::UTType::folder() : platform::UTType::data();
  }
  std::optional<std::int64_t> documentSize() const override {
    if (item_.isFolder) return std::nullopt;
    return item_.sizeBytes;
  }
  std::optional<platform::Date> contentModificationDate() const override { return item_.modified; }

 private:
  const OutgoingTemplate item_;
};

// Suspends until `start`, which gets the reply, has been answered.
template <class T>
Task<Answer<T>> answered(std::function<void(OnceReply<T>)> start) {
  auto begin = [&start](platform::Continuation<Answer<T>> continuation) {
    start(
        OnceReply<T>([continuation](Answer<T> answer) { continuation.resume(std::move(answer)); }));
  };
  co_return co_await platform::suspendUntilResumed<Answer<T>>(begin);
}

bool isNoSuchItem(const platform::NSError& error) {
  return error.domain() == platform::kNSFileProviderErrorDomain &&
         error.code() == platform::NSFileProviderError::noSuchItem;
}

NSErrorPtr noItem() {
  return NSPOSIXError(EIO, "the extension answered with neither an item nor an error").share();
}

platform::NSFileProviderReplicatedExtension::ChangeHandler changeHandler(
    OnceReply<ItemRecord> once) {
  return [once = std::move(once)](const NSFileProviderItemPtr& item, NSFileProviderItemFields, bool,
                                  const NSErrorPtr& error) {
    if (error) {
      once.answer(error);
    } else if (!item) {
      once.answer(noItem());
    } else {
      once.answer(ItemRecord::from(*item));
    }
  };
}

}  // namespace

// Counts a call from before it begins until its answer is there.
class ExtensionCalls::Running {
 public:
  explicit Running(std::shared_ptr<ExtensionCalls> calls) : calls_(std::move(calls)) {
    MutexLock lock(calls_->mutex_);
    number_ = calls_->next_++;
    calls_->running_[number_] = nullptr;
  }
  ~Running() { calls_->end(number_); }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  void has(NSProgressPtr progress) const { calls_->begin(number_, std::move(progress)); }
  platform::NSFileProviderReplicatedExtension& extension() const { return *calls_->extension_; }

 private:
  const std::shared_ptr<ExtensionCalls> calls_;
  std::uint64_t number_ = 0;
};

void ExtensionCalls::begin(std::uint64_t number, const NSProgressPtr& progress) {
  bool cancel = false;
  {
    MutexLock lock(mutex_);
    const auto found = running_.find(number);
    if (found == running_.end()) return;  // answered before it returned
    found->second = progress;
    cancel = stopped_;
  }
  if (cancel && progress) progress->cancel();
}

void ExtensionCalls::end(std::uint64_t number) {
  MutexLock lock(mutex_);
  running_.erase(number);
}

std::size_t ExtensionCalls::count() {
  MutexLock lock(mutex_);
  return running_.size();
}

void ExtensionCalls::stop() {
  std::vector<NSProgressPtr> running;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    for (const auto& [number, progress] : running_) running.push_back(progress);
  }
  for (const auto& progress : running) {
    if (progress) progress->cancel();
  }
}

Task<Answer<std::optional<ItemRecord>>> ExtensionCalls::item(
    platform::NSFileProviderItemIdentifier identifier) {
  const auto running = std::make_shared<Running>(shared_from_this());
  using Found = std::optional<ItemRecord>;
  auto start = [&](const OnceReply<Found>& once) {
    auto handler = [once](const NSFileProviderItemPtr& item, const NSErrorPtr& error) {
      if (error && isNoSuchItem(*error)) {
        once.answer(Found());
      } else if (error) {
        once.answer(error);
      } else if (!item) {
        once.answer(noItem());
      } else {
        once.answer(Found(ItemRecord::from(*item)));
      }
    };
    running->has(running->extension().item(identifier, {.isSystemRequest = true}, handler));
  };
  co_return co_await answered<Found>(start);
}

Task<Answer<ItemRecord>> ExtensionCalls::create(OutgoingTemplate item,
                                                std::optional<std::filesystem::path> contents) {
  const auto running = std::make_shared<Running>(shared_from_this());
  auto start = [&](const OnceReply<ItemRecord>& once) {
    auto fields = NSFileProviderItemFields::filename |
                  NSFileProviderItemFields::parentItemIdentifier |
                  NSFileProviderItemFields::contentModificationDate;
    if (contents) fields = fields | NSFileProviderItemFields::contents;
    running->has(running->extension().createItem(std::make_shared<TemplateItem>(item), fields,
                                                 contents,
                                                 platform::NSFileProviderCreateItemOptions::none,
                                                 {.isSystemRequest = true}, changeHandler(once)));
  };
  co_return co_await answered<ItemRecord>(start);
}

Task<Answer<ItemRecord>> ExtensionCalls::modify(OutgoingTemplate item,
                                                platform::NSFileProviderItemVersion base,
                                                NSFileProviderItemFields fields,
                                                std::optional<std::filesystem::path> contents) {
  const auto running = std::make_shared<Running>(shared_from_this());
  auto start = [&](const OnceReply<ItemRecord>& once) {
    running->has(running->extension().modifyItem(std::make_shared<TemplateItem>(item), base, fields,
                                                 contents,
                                                 platform::NSFileProviderModifyItemOptions::none,
                                                 {.isSystemRequest = true}, changeHandler(once)));
  };
  co_return co_await answered<ItemRecord>(start);
}

Task<Answer<Done>> ExtensionCalls::remove(platform::NSFileProviderItemIdentifier identifier,
                                          platform::NSFileProviderItemVersion base) {
  const auto running = std::make_shared<Running>(shared_from_this());
  auto start = [&](const OnceReply<Done>& once) {
    auto handler = [once](const NSErrorPtr& error) {
      if (error && !isNoSuchItem(*error)) {
        once.answer(error);
      } else {
        once.answer(Done());
      }
    };
    running->has(running->extension().deleteItem(
        identifier, base, platform::NSFileProviderDeleteItemOptions::recursive,
        {.isSystemRequest = true}, handler));
  };
  co_return co_await answered<Done>(start);
}

Task<Answer<Done>> ExtensionCalls::perform(
    std::string action, std::vector<platform::NSFileProviderItemIdentifier> items) {
  const auto running = std::make_shared<Running>(shared_from_this());
  auto* actions = dynamic_cast<platform::NSFileProviderCustomAction*>(&running->extension());
  if (actions == nullptr)
    co_return NSPOSIXError(ENOTSUP, "run an action: the extension has none").share();
  auto start = [&](const OnceReply<Done>& once) {
    auto handler = [once](const NSErrorPtr& error) {
      if (error) {
        once.answer(error);
      } else {
        once.answer(Done());
      }
    };
    running->has(actions->performAction(action, items, handler));
  };
  co_return co_await answered<Done>(start);
}

}  // namespace kestrune::host
