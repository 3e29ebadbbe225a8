#include "boundary/ListedItems.h"

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <string_view>
#include <utility>

#include "boundary/BoundaryError.h"
#include "boundary/Messages.h"
#include "boundary/Protocol.h"
#include "platform/values/Mutex.h"

namespace kestrune::boundary {

namespace {

using platform::Date;
using platform::NSErrorPtr;
using platform::NSFileProviderContentPolicy;

constexpr std::chrono::seconds kPatience{10};

std::string_view view(capnp::Data::Reader bytes) {
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

// The content policies of one list, asked for once.
class Policies {
 public:
  Policies(std::shared_ptr<wire::Policies::Client> client, std::shared_ptr<Loop> loop)
      : client_(std::move(client)), loop_(std::move(loop)) {}

  /// Throws NSError if they cannot be had.
  NSFileProviderContentPolicy of(std::size_t index) {
    const auto answer = asked();
    if (answer.wait_for(kPatience) != std::future_status::ready) interrupted()->raise();
    const Known& known = answer.get();
    if (known.error) known.error->raise();
    if (index >= known.policies.size())
      errorFrom(KJ_EXCEPTION(FAILED, "fewer policies than items"))->raise();
    return static_cast<NSFileProviderContentPolicy>(known.policies[index]);
  }

 private:
  struct Known {
    std::vector<std::int64_t> policies;
    NSErrorPtr error;
  };

  // Tells what is known in the end, whatever becomes of the question.
  class Answer {
   public:
    ~Answer() { give({{}, interrupted()}); }
    Answer() = default;
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;
    void give(Known known) {
      if (!std::exchange(isGiven_, true)) promise_.set_value(std::move(known));
    }
    std::shared_future<Known> future() { return promise_.get_future().share(); }

   private:
    std::promise<Known> promise_;
    bool isGiven_ = false;
  };

  // The answer to come; whoever is first asks.
  std::shared_future<Known> asked() {
    auto answer = std::make_shared<Answer>();
    {
      platform::MutexLock lock(mutex_);
      if (known_.valid()) return known_;
      known_ = answer->future();
    }
    loop_->post([client = client_, answer] {
      client->readRequest()
          .send()
          .then([answer](auto&& told) {
            Known known;
            for (const std::int64_t policy : told.getPolicies()) known.policies.push_back(policy);
            answer->give(std::move(known));
          })
          .detach([answer](kj::Exception&& exception) {
            answer->give({{}, errorFrom(exception)});
          });
    });
    return asked();
  }

  const std::shared_ptr<wire::Policies::Client> client_;
  const std::shared_ptr<Loop> loop_;
  platform::Mutex mutex_;
  std::shared_future<Known> known_ GUARDED_BY(mutex_);
};

struct Listed;

// Its texts are in the message, which its list keeps.
class ListedItem final : public platform::NSFileProviderItem {
 public:
  ListedItem(Listed& list, std::size_t index, wire::Item::Reader message)
      : list_(list),
        index_(index),
        identifier_(view(message.getIdentifier())),
        parentIdentifier_(view(message.getParentIdentifier())),
        filename_(view(message.getFilename())) {
    if (message.hasContentType()) contentType_ = view(message.getContentType());
    if (message.getHasCapabilities())
      capabilities_ =
          static_cast<platform::NSFileProviderItemCapabilities>(message.getCapabilities());
    if (message.getHasSize()) documentSize_ = message.getSize();
    if (message.getHasModified())
      modified_ = Date(std::chrono::microseconds(message.getModified()));
    if (message.getHasCreated()) created_ = Date(std::chrono::microseconds(message.getCreated()));
    if (message.hasVersion()) {
      const auto version = message.getVersion();
      version_ = {view(version.getContent()), view(version.getMetadata())};
    }
  }

  platform::NSFileProviderItemIdentifier itemIdentifier() const override {
    return std::string(identifier_);
  }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override {
    return std::string(parentIdentifier_);
  }
  std::string filename() const override { return std::string(filename_); }
  std::optional<platform::UTType> contentType() const override {
    if (!contentType_) return std::nullopt;
    return platform::UTType::named(std::string(*contentType_));
  }
  std::optional<platform::NSFileProviderItemCapabilities> capabilities() const override {
    return capabilities_;
  }
  std::optional<std::int64_t> documentSize() const override { return documentSize_; }
  std::optional<Date> contentModificationDate() const override { return modified_; }
  std::optional<Date> creationDate() const override { return created_; }
  NSFileProviderContentPolicy contentPolicy() const override;
  std::optional<platform::NSFileProviderItemVersion> itemVersion() const override {
    if (!version_) return std::nullopt;
    return platform::NSFileProviderItemVersion{std::string(version_->first),
                                               std::string(version_->second)};
  }

 private:
  Listed& list_;
  const std::size_t index_;
  const std::string_view identifier_;
  const std::string_view parentIdentifier_;
  const std::string_view filename_;
  std::optional<std::string_view> contentType_;
  std::optional<platform::NSFileProviderItemCapabilities> capabilities_;
  std::optional<std::int64_t> documentSize_;
  std::optional<Date> modified_;
  std::optional<Date> created_;
  std::optional<std::pair<std::string_view, std::string_view>> version_;
};

struct Listed {
  Listed(std::shared_ptr<wire::Policies::Client> client, const std::shared_ptr<Loop>& loop)
      : policies(std::move(client), loop) {}
  kj::Array<capnp::word> message;
  std::vector<ListedItem> items;
  Policies policies;
};

NSFileProviderContentPolicy ListedItem::contentPolicy() const { return list_.policies.of(index_); }

}  // namespace

std::vector<platform::NSFileProviderItemPtr> itemsOf(
    capnp::Data::Reader list, std::shared_ptr<wire::Policies::Client> policies,
    const std::shared_ptr<Loop>& loop) {
  const auto listed = std::make_shared<Listed>(std::move(policies), loop);
  listed->message = kj::heapArray<capnp::word>(list.size() / sizeof(capnp::word));
  // A copy, which is aligned as messages are and outlives the call.
  std::memcpy(listed->message.begin(), list.begin(), listed->message.asBytes().size());
  capnp::FlatArrayMessageReader reader(listed->message);
  const auto messages = reader.getRoot<wire::ItemList>().getItems();
  // A list whose items take no bytes could name any number of them.
  KJ_REQUIRE(messages.size() <= kMostItemsAMessage, "too many items in one message");
  listed->items.reserve(messages.size());
  for (const auto message : messages)
    listed->items.emplace_back(*listed, listed->items.size(), message);
  std::vector<platform::NSFileProviderItemPtr> items;
  items.reserve(listed->items.size());
  for (const ListedItem& item : listed->items) items.emplace_back(listed, &item);
  return items;
}

}  // namespace kestrune::boundary
