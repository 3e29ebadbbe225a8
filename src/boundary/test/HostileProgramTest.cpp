// A program that keeps to the protocol's form and to nothing else: the host must come to no harm from it.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>

#include "boundary/Loop.h"
#include "boundary/Messages.h"
#include "boundary/Protocol.h"
#include "boundary/SocketStream.h"
#include "boundary/Wire.h"
#include "boundary/test/ProtocolHarness.h"
#include "platform/values/Mutex.h"

namespace kestrune::boundary::test {
namespace {

// The other end of a socket, where everything is a test's to decide.
class HostileProgram {
 public:
  template <class Server>
  HostileProgram(int socket, kj::Own<Server> extension) {
    loop_->run([&] { end_ = std::make_unique<End>(loop_, socket, kj::mv(extension)); });
  }
  ~HostileProgram() {
    loop_->run([this] { end_ = nullptr; });
  }
  HostileProgram(const HostileProgram&) = delete;
  HostileProgram& operator=(const HostileProgram&) = delete;

 private:
  struct End {
    End(std::shared_ptr<Loop> loop, int socket, wire::Extension::Client extension)
        : stream(std::move(loop), kj::AutoCloseFd(socket), SocketStream::OtherSide::trusted),
          network(stream, 1, capnp::rpc::twoparty::Side::SERVER),
          system(capnp::makeRpcServer(network, kj::mv(extension))) {}
    SocketStream stream;
    capnp::TwoPartyVatNetwork network;
    capnp::RpcSystem<capnp::rpc::twoparty::VatId> system;
  };
  const std::shared_ptr<Loop> loop_ = Loop::make("hostile");
  std::unique_ptr<End> end_;
};

constexpr const char* kMark = "a-descriptor-of-the-program";

int openMarked() {
  int open = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone).string().find(kMark) != std::string::npos)
      ++open;
  }
  return open;
}

// Hands a descriptor to the host with an enumerator.
class Giver final : public wire::Extension::Server {
  class Enumerator final : public wire::Enumerator::Server {
   public:
    explicit Enumerator(int descriptor) : descriptor_(descriptor) {}
    kj::Maybe<int> getFd() override { return descriptor_; }

   private:
    const int descriptor_;
  };

 protected:
  kj::Promise<void> enumerator(EnumeratorContext context) override {
    context.getResults().setEnumerator(kj::heap<Enumerator>(marked_.get()));
    return kj::READY_NOW;
  }
  kj::Promise<void> item(ItemContext) override { return kj::READY_NOW; }

 private:
  const kj::AutoCloseFd marked_{::memfd_create(kMark, MFD_CLOEXEC)};
};

TEST(HostileProgram, ADescriptorThatItSendsIsNotTaken) {
  const auto [hostEnd, programEnd] = socketPair();
  const HostileProgram program(programEnd, kj::heap<Giver>());
  const auto remote = RemoteExtension::connect(hostEnd, {});
  const auto folder = remote->enumerator("open", {});
  Told<NSFileProviderItemPtr, NSErrorPtr> ended;
  remote->item("ended", {}, ended.handler());
  ended.wait();  // both answers have come
  EXPECT_EQ(openMarked(), 1) << "the program's own";
}

// Says that a stream has ended and goes on with it.
class Babbler final : public wire::Extension::Server {
 public:
  explicit Babbler(std::promise<bool>& wanted) : wanted_(wanted) {}

 protected:
  kj::Promise<void> streamContents(StreamContentsContext context) override {
    taker_ = context.getParams().getTaker();
    return kj::READY_NOW;
  }
  kj::Promise<void> item(ItemContext) override {
    auto more = taker_->takeRequest();
    more.setLength(5);
    return more.send().then([this](auto&& answer) { wanted_.set_value(answer.getWanted()); });
  }

 private:
  std::promise<bool>& wanted_;
  std::optional<wire::Taker::Client> taker_;
};

TEST(HostileProgram, BytesAfterTheEndAreNotHandedOn) {
  std::promise<bool> wanted;
  const auto [hostEnd, programEnd] = socketPair();
  const HostileProgram program(programEnd, kj::heap<Babbler>(wanted));
  const auto remote = RemoteExtension::connect(hostEnd, {});
  std::atomic<int> pieces = 0;
  Told<NSFileProviderItemPtr, NSErrorPtr> ended;
  remote->streamContents(
      "x", {}, {}, {0, 100}, [&pieces](auto&&...) { return ++pieces > 0; }, ended.handler());
  ended.wait();
  Told<NSFileProviderItemPtr, NSErrorPtr> found;
  remote->item("x", {}, found.handler());
  auto answered = wanted.get_future();
  ASSERT_EQ(answered.wait_for(kSoon), std::future_status::ready);
  EXPECT_FALSE(answered.get());
  EXPECT_EQ(pieces, 0);
}

// Tells of bytes that are not in the memory.
class Exaggerator final : public wire::Extension::Server {
 public:
  explicit Exaggerator(std::promise<int>& refused) : refused_(refused) {}

 protected:
  kj::Promise<void> streamContents(StreamContentsContext context) override {
    constexpr std::uint64_t kAll = UINT64_MAX;
    constexpr std::uint32_t kLongest = UINT32_MAX;
    constexpr std::pair<std::uint64_t, std::uint32_t> kBeyond[] = {
        {0, kLongest}, {kAll, 1}, {kAll - 4, 5}, {1U << 30U, 1}, {1, kLongest}};
    auto asked = kj::heapArrayBuilder<kj::Promise<void>>(std::size(kBeyond));
    for (const auto& [position, length] : kBeyond) {
      auto request = context.getParams().getTaker().takeRequest();
      request.setPosition(position);
      request.setLength(length);
      asked.add(request.send().ignoreResult().catch_([this](kj::Exception&&) { ++count_; }));
    }
    return kj::joinPromises(asked.finish()).then([this] { refused_.set_value(count_); });
  }

 private:
  std::promise<int>& refused_;
  int count_ = 0;
};

TEST(HostileProgram, BytesBeyondTheMemoryAreNotHandedOn) {
  std::promise<int> refused;
  const auto [hostEnd, programEnd] = socketPair();
  const HostileProgram program(programEnd, kj::heap<Exaggerator>(refused));
  const auto remote = RemoteExtension::connect(hostEnd, {});
  std::atomic<int> pieces = 0;
  Told<NSFileProviderItemPtr, NSErrorPtr> ended;
  remote->streamContents(
      "x", {}, {}, {0, INT64_MAX}, [&pieces](auto&&...) { return ++pieces > 0; }, ended.handler());
  auto answered = refused.get_future();
  ASSERT_EQ(answered.wait_for(kSoon), std::future_status::ready);
  EXPECT_EQ(answered.get(), 5);
  ended.wait();
  EXPECT_EQ(pieces, 0);
}

// Lists a million items in a message of a hundred bytes: each of them takes up nothing.
class Multiplier final : public wire::Extension::Server {
  template <class Request>
  static void multiply(Request request) {
    capnp::AnyStruct::Builder form = capnp::toAny(request);
    form.getPointerSection()[0].initAsListOfAnyStruct(0, 0, 1'000'000);
    request.send().detach([](kj::Exception&&) {});
  }

  class Enumerator final : public wire::Enumerator::Server {
   protected:
    kj::Promise<void> enumerateItems(EnumerateItemsContext context) override {
      auto observer = context.getParams().getObserver();
      multiply(observer.itemsRequest());
      observer.finishRequest().send().detach([](kj::Exception&&) {});
      return kj::READY_NOW;
    }
    kj::Promise<void> enumerateChanges(EnumerateChangesContext context) override {
      auto observer = context.getParams().getObserver();
      multiply(observer.updatedRequest());
      observer.finishRequest().send().detach([](kj::Exception&&) {});
      return kj::READY_NOW;
    }
  };

 protected:
  kj::Promise<void> enumerator(EnumeratorContext context) override {
    context.getResults().setEnumerator(kj::heap<Enumerator>());
    return kj::READY_NOW;
  }
};

// How many items came, and with which error it ended.
class Counter final : public NSFileProviderEnumerationObserver,
                      public NSFileProviderChangeObserver {
 public:
  explicit Counter(std::function<void(std::size_t, NSErrorPtr)> ended) : ended_(std::move(ended)) {}
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    items_ += items.size();
  }
  void didUpdateItems(std::vector<NSFileProviderItemPtr> items) override { items_ += items.size(); }
  void didDeleteItemsWithIdentifiers(std::vector<std::string>) override {}
  void finishEnumeratingUpToPage(std::optional<std::string>) override { ended_(items_, nullptr); }
  void finishEnumeratingChangesUpToSyncAnchor(std::string, bool) override {
    ended_(items_, nullptr);
  }
  void finishEnumeratingWithError(NSErrorPtr error) override { ended_(items_, std::move(error)); }

 private:
  const std::function<void(std::size_t, NSErrorPtr)> ended_;
  std::size_t items_ = 0;
};

TEST(HostileProgram, AFewBytesDoNotBecomeAMillionItems) {
  const auto [hostEnd, programEnd] = socketPair();
  const HostileProgram program(programEnd, kj::heap<Multiplier>());
  const auto remote = RemoteExtension::connect(hostEnd, {});
  const auto folder = remote->enumerator("x", {});
  Told<std::size_t, NSErrorPtr> listed;
  folder->enumerateItems(std::make_shared<Counter>(listed.handler()), "page");
  const auto [items, error] = listed.wait();
  EXPECT_EQ(items, 0U);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), NSCocoaError::xpcConnectionReplyInvalid);
  Told<std::size_t, NSErrorPtr> changed;
  folder->enumerateChanges(std::make_shared<Counter>(changed.handler()), "anchor");
  const auto [updates, changesError] = changed.wait();
  EXPECT_EQ(updates, 0U);
  ASSERT_NE(changesError, nullptr);
  EXPECT_EQ(changesError->code(), NSCocoaError::xpcConnectionReplyInvalid);
}

// Answers what is not there: no answer, no enumerator, and sometimes nothing at all.
class Void final : public wire::Extension::Server {
 protected:
  kj::Promise<void> item(ItemContext) override { return kj::READY_NOW; }
  kj::Promise<void> fetchContents(FetchContentsContext) override { return kj::NEVER_DONE; }
  kj::Promise<void> enumerator(EnumeratorContext) override { return kj::READY_NOW; }
};

TEST(HostileProgram, AnswersWithNothingInThemAreAnswersOrErrors) {
  const auto [hostEnd, programEnd] = socketPair();
  std::optional<HostileProgram> program(std::in_place, programEnd, kj::heap<Void>());
  const auto remote = RemoteExtension::connect(hostEnd, {});
  Told<NSFileProviderItemPtr, NSErrorPtr> item;
  remote->item("x", {}, item.handler());
  const auto [found, itemError] = item.wait();
  EXPECT_EQ(found, nullptr);
  Told<Url, NSFileProviderItemPtr, NSErrorPtr> fetched;
  const auto progress = remote->fetchContents("x", {}, {}, fetched.handler());
  progress->cancel();
  Told<std::size_t, NSErrorPtr> listed;
  remote->enumerator("x", {})->enumerateItems(std::make_shared<Counter>(listed.handler()), "");
  EXPECT_NE(std::get<1>(listed.wait()), nullptr);
  program.reset();
  EXPECT_NE(std::get<2>(fetched.wait()), nullptr);
}

// Tells of the progress of operations that nobody asked for, and of one that was: counts that make no sense.
class Dreamer final : public wire::Extension::Server {
 protected:
  kj::Promise<void> greet(GreetContext context) override {
    context.getResults().setVersion(kProtocolVersion);
    host_ = context.getParams().getHost();
    return kj::READY_NOW;
  }
  kj::Promise<void> item(ItemContext context) override {
    auto told = kj::heapArrayBuilder<kj::Promise<void>>(3);
    const std::uint64_t number = context.getParams().getOperation();
    for (const std::uint64_t operation : {number + 1, UINT64_MAX, number}) {
      auto request = host_->progressedRequest();
      request.setOperation(operation);
      request.setTotal(INT64_MIN);
      request.setCompleted(INT64_MAX);
      told.add(request.send().ignoreResult());
    }
    return kj::joinPromises(told.finish());
  }

 private:
  std::optional<wire::Host::Client> host_;
};

TEST(HostileProgram, ProgressOfWhatWasNotAskedIsIgnored) {
  const auto [hostEnd, programEnd] = socketPair();
  const HostileProgram program(programEnd, kj::heap<Dreamer>());
  const auto remote = RemoteExtension::connect(hostEnd, {});
  std::promise<NSErrorPtr> greeted;
  remote->greet({"main", "x"},
                [&](const Greeting&, const NSErrorPtr& error) { greeted.set_value(error); });
  EXPECT_EQ(greeted.get_future().get(), nullptr);
  Told<NSFileProviderItemPtr, NSErrorPtr> found;
  const auto progress = remote->item("x", {}, found.handler());
  EXPECT_EQ(std::get<1>(found.wait()), nullptr);
  EXPECT_EQ(progress->snapshot(), (NSProgress::Snapshot{INT64_MIN, INT64_MAX}));
  EXPECT_EQ(progress->fractionCompleted(), 0);
}

// Asks more and more, whatever is answered.
class Asker final : public wire::Extension::Server {
 protected:
  kj::Promise<void> greet(GreetContext context) override {
    context.getResults().setVersion(kProtocolVersion);
    const std::string text(1U << 20U, 'x');
    for (int i = 0; i < kTexts; ++i) {
      auto request = context.getParams().getHost().copyTextRequest();
      request.setText(bytesOf(text));
      request.send().ignoreResult().detach([](kj::Exception&&) {});
    }
    return kj::READY_NOW;
  }

 public:
  static constexpr int kTexts = 300;  // of 1 MiB each
};

TEST(HostileProgram, QuestionsWithoutEndAreNotReadWithoutEnd) {
  const auto [hostEnd, programEnd] = socketPair();
  const HostileProgram program(programEnd, kj::heap<Asker>());
  std::atomic<int> asked = 0;
  platform::Mutex mutex;
  std::vector<platform::NSFileProviderManager::Handler> unanswered;
  const auto copyText = [&](auto&&, auto&& handler) {
    platform::MutexLock lock(mutex);
    unanswered.push_back(handler);
    ++asked;
  };
  const auto remote = RemoteExtension::connect(hostEnd, {[] { return nullptr; }, copyText});
  Told<Greeting, NSErrorPtr> greeted;
  remote->greet({"d", "d"}, greeted.handler());
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  for (int before = 0; before == 0 || before != asked;) {
    before = asked;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
  }
  EXPECT_GT(asked, 100);
  EXPECT_LT(asked, Asker::kTexts / 2);
}

// Sends what each time has to be answered, and reads nothing.
TEST(HostileProgram, AnswersThatItDoesNotReadDoNotGather) {
  const auto [hostEnd, programEnd] = socketPair();
  const kj::AutoCloseFd program(programEnd);
  const auto remote = RemoteExtension::connect(hostEnd, {});
  // One segment of two words: a structure, and in it a kind of message that nobody knows.
  constexpr std::array<std::uint64_t, 3> kUnknown = {2ULL << 32U, 1ULL << 32U, 99};
  std::vector<std::uint64_t> block;
  for (int i = 0; i < 1000; ++i) block.insert(block.end(), kUnknown.begin(), kUnknown.end());
  const std::size_t blockBytes = block.size() * sizeof(block[0]);
  const auto takesMore = [&] {
    pollfd polled{program.get(), POLLOUT, 0};
    return ::poll(&polled, 1, 1000) == 1;
  };
  std::size_t sent = 0;
  while (sent < (64U << 20U) && takesMore()) {
    const ssize_t count =
        ::send(program.get(), reinterpret_cast<const char*>(block.data()) + sent % blockBytes,
               blockBytes - sent % blockBytes, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) continue;
    ASSERT_GT(count, 0);
    sent += static_cast<std::size_t>(count);
  }
  EXPECT_GT(sent, 0U);
  EXPECT_LT(sent, 4U << 20U);
  // When it reads them, more is read from it.
  std::vector<char> some(64U << 10U);
  pollfd polled{program.get(), POLLIN, 0};
  while (::poll(&polled, 1, 300) == 1)
    ASSERT_GT(::read(program.get(), some.data(), some.size()), 0);
  EXPECT_TRUE(takesMore());
}

}  // namespace
}  // namespace kestrune::boundary::test
