// An extension whose answers a test decides, and a host's view of it: the object itself, or from behind the boundary. What holds for
// one holds for the other.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "boundary/ExtensionServer.h"
#include "boundary/RemoteExtension.h"

namespace kestrune::boundary::test {

using namespace platform;  // NOLINT(google-build-using-namespace): every second word here is the platform's

inline constexpr std::chrono::seconds kSoon{10};

/// What a handler was called with. It may be waited for once.
template <class... Arguments>
class Told {
 public:
  using Values = std::tuple<std::decay_t<Arguments>...>;

  /// The handler; it may outlive this object, and a second call of it fails the test.
  std::function<void(Arguments...)> handler() const {
    return [state = state_](Arguments... arguments) {
      if (state->calls++ > 0) {
        ADD_FAILURE() << "a handler was called twice";
      } else {
        state->promise.set_value({arguments...});
      }
    };
  }
  Values wait() {
    auto future = state_->promise.get_future();
    if (future.wait_for(kSoon) != std::future_status::ready)
      throw std::runtime_error("a handler was not called");
    return future.get();
  }
  /// Without a handler outside that could still call.
  bool waitUntilLetGo() const {
    const auto deadline = std::chrono::steady_clock::now() + kSoon;
    while (state_.use_count() > 1 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return state_.use_count() == 1;
  }
  bool wasCalled() const { return state_->calls > 0; }

 private:
  struct State {
    std::promise<Values> promise;
    std::atomic<int> calls = 0;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

struct ItemValues {
  std::string identifier, parent, filename;
  std::optional<UTType> type;
  std::optional<NSFileProviderItemCapabilities> capabilities;
  std::optional<std::int64_t> size;
  std::optional<Date> modified, created;
  NSFileProviderContentPolicy policy = NSFileProviderContentPolicy::inherited;
  std::optional<NSFileProviderItemVersion> version;
  bool operator==(const ItemValues&) const = default;

  static ItemValues of(const NSFileProviderItem& item);
  static ItemValues random(std::mt19937_64& generator);
};

class TestItem final : public NSFileProviderItem {
 public:
  explicit TestItem(ItemValues values) : values_(std::move(values)) {}
  static NSFileProviderItemPtr make(ItemValues values) {
    return std::make_shared<TestItem>(std::move(values));
  }
  std::string itemIdentifier() const override { return values_.identifier; }
  std::string parentItemIdentifier() const override { return values_.parent; }
  std::string filename() const override { return values_.filename; }
  std::optional<UTType> contentType() const override { return values_.type; }
  std::optional<NSFileProviderItemCapabilities> capabilities() const override {
    return values_.capabilities;
  }
  std::optional<std::int64_t> documentSize() const override { return values_.size; }
  std::optional<Date> contentModificationDate() const override { return values_.modified; }
  std::optional<Date> creationDate() const override { return values_.created; }
  NSFileProviderContentPolicy contentPolicy() const override { return values_.policy; }
  std::optional<NSFileProviderItemVersion> itemVersion() const override { return values_.version; }

 private:
  const ItemValues values_;
};

using Url = std::optional<std::filesystem::path>;

class MockExtension : public NSFileProviderReplicatedExtension,
                      public NSFileProviderPartialContentFetching,
                      public NSFileProviderCustomAction,
                      public ContentStreaming {
 public:
  MOCK_METHOD(void, invalidate, (), (override));
  MOCK_METHOD(NSProgressPtr, item, (std::string, NSFileProviderRequest, ItemHandler), (override));
  MOCK_METHOD(NSProgressPtr, fetchContents,
              (std::string, std::optional<NSFileProviderItemVersion>, NSFileProviderRequest,
               ContentsHandler),
              (override));
  MOCK_METHOD(NSProgressPtr, createItem,
              (NSFileProviderItemPtr, NSFileProviderItemFields, Url,
               NSFileProviderCreateItemOptions, NSFileProviderRequest, ChangeHandler),
              (override));
  MOCK_METHOD(NSProgressPtr, modifyItem,
              (NSFileProviderItemPtr, NSFileProviderItemVersion, NSFileProviderItemFields, Url,
               NSFileProviderModifyItemOptions, NSFileProviderRequest, ChangeHandler),
              (override));
  MOCK_METHOD(NSProgressPtr, deleteItem,
              (std::string, NSFileProviderItemVersion, NSFileProviderDeleteItemOptions,
               NSFileProviderRequest, DoneHandler),
              (override));
  MOCK_METHOD(std::shared_ptr<NSFileProviderEnumerator>, enumerator,
              (std::string, NSFileProviderRequest), (override));
  MOCK_METHOD(NSProgressPtr, fetchPartialContents,
              (std::string, NSFileProviderItemVersion, NSFileProviderRequest, NSRange, std::int64_t,
               NSFileProviderFetchContentsOptions, PartialContentsHandler),
              (override));
  MOCK_METHOD(NSProgressPtr, performAction, (std::string, std::vector<std::string>, DoneHandler),
              (override));
  MOCK_METHOD(NSProgressPtr, streamContents,
              (std::string, NSFileProviderItemVersion, NSFileProviderRequest, NSRange, BytesHandler,
               EndHandler),
              (override));
};

class MockEnumerator : public NSFileProviderEnumerator {
 public:
  MOCK_METHOD(void, invalidate, (), (override));
  MOCK_METHOD(void, enumerateItems,
              (std::shared_ptr<NSFileProviderEnumerationObserver>, std::string), (override));
  MOCK_METHOD(void, enumerateChanges, (std::shared_ptr<NSFileProviderChangeObserver>, std::string),
              (override));
  MOCK_METHOD(void, currentSyncAnchor, (std::function<void(std::optional<std::string>)>),
              (override));
};

class MockManager : public NSFileProviderManager {
 public:
  MOCK_METHOD(void, evictItem, (std::string, Handler), (override));
  MOCK_METHOD(void, requestDownloadForItem, (std::string, std::optional<NSRange>, Handler),
              (override));
  MOCK_METHOD(void, signalEnumerator, (std::string, Handler), (override));
};

/// The two ends of a boundary in one process.
class Boundary {
 public:
  explicit Boundary(std::shared_ptr<MockExtension> extension);

  std::shared_ptr<RemoteExtension> remote;
  std::shared_ptr<MockManager> manager = std::make_shared<testing::NiceMock<MockManager>>();
  std::shared_ptr<std::string> pasted = std::make_shared<std::string>();
  /// What the extension was made with.
  std::string domainIdentifier, domainName;
  RemoteHost host;
  Greeting greeting;
  NSErrorPtr greetingError;
  std::promise<void> hostWent;

  /// As if the program had been killed.
  void killProgram() { server_ = nullptr; }

 private:
  std::unique_ptr<ExtensionServer> server_;
};

/// Until nobody else holds it: the mock's expectations are checked when it goes.
template <class T>
void waitUntilAlone(const std::shared_ptr<T>& object) {
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  while (object.use_count() > 1 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(object.use_count(), 1);
}

enum class Side { sameProcess, acrossTheBoundary };

inline const auto kBothSides = testing::Values(Side::sameProcess, Side::acrossTheBoundary);
inline std::string nameOfSide(const testing::TestParamInfo<Side>& side) {
  return side.param == Side::sameProcess ? "InOneProcess" : "AcrossTheBoundary";
}

class ProtocolTest : public testing::TestWithParam<Side> {
 protected:
  ProtocolTest() {
    if (GetParam() == Side::acrossTheBoundary) boundary_.emplace(extension);
  }
  ~ProtocolTest() override {
    boundary_.reset();
    waitUntilAlone(extension);
  }

  template <class Protocol>
  Protocol& as() {
    NSFileProviderReplicatedExtension* seen = extension.get();
    if (boundary_) seen = boundary_->remote.get();
    return dynamic_cast<Protocol&>(*seen);
  }

  /// Lets the boundary go, and with it what it holds of the extension.
  void disconnect() { boundary_.reset(); }
  NSFileProviderReplicatedExtension& host() { return as<NSFileProviderReplicatedExtension>(); }

  const std::shared_ptr<MockExtension> extension = std::make_shared<MockExtension>();
  const NSFileProviderRequest request{true, false, "/usr/bin/\xff"};
  const NSFileProviderItemVersion version{"one\0two", "meta"};
  std::mt19937_64 generator{20261122};

 private:
  std::optional<Boundary> boundary_;
};

/// Two connected sockets.
std::pair<int, int> socketPair();

inline NSErrorPtr someError() {
  return std::make_shared<const NSError>("some.domain", -77, "what \xff went wrong",
                                         NSError::UserInfo{{"HTTPStatusCode", "503"}, {"a", ""}});
}
bool same(const NSErrorPtr& a, const NSErrorPtr& b);

}  // namespace kestrune::boundary::test
