// The connection's bytes: messages in any pieces, descriptors with the right ones, and what is no message.
#include "boundary/SocketStream.h"

#include <capnp/rpc.capnp.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <numeric>

#include "boundary/test/ProtocolHarness.h"

namespace kestrune::boundary::test {
namespace {

// A message of so many words, none of them like the next.
kj::Array<capnp::word> messageOf(unsigned words, unsigned seed) {
  capnp::MallocMessageBuilder message;
  auto policies = message.initRoot<wire::Policies::ReadResults>().initPolicies(words);
  for (unsigned i = 0; i < words; ++i) policies.set(i, seed + i);
  return capnp::messageToFlatArray(message);
}

bool isMessageOf(capnp::MessageReader& message, unsigned words, unsigned seed) {
  const auto policies = message.getRoot<wire::Policies::ReadResults>().getPolicies();
  if (policies.size() != words) return false;
  for (unsigned i = 0; i < words; ++i)
    if (policies[i] != static_cast<std::int64_t>(seed) + i) return false;
  return true;
}

std::string_view bytesOf(const kj::Array<capnp::word>& message) {
  const auto bytes = message.asBytes();
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

// Bytes with room for a descriptor, as the kernel wants them.
struct WithDescriptor {
  WithDescriptor(char* bytes, std::size_t count) : piece{bytes, count} {
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
  }
  WithDescriptor(const WithDescriptor&) = delete;
  WithDescriptor& operator=(const WithDescriptor&) = delete;

  iovec piece;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};
};

class SocketStreamTest : public testing::Test {
 protected:
  using OtherSide = SocketStream::OtherSide;

  ~SocketStreamTest() override {
    loop->run([this] { stream.reset(); });
    if (other >= 0) ::close(other);
  }
  void open(OtherSide otherSide = OtherSide::trusted) {
    loop = Loop::make("test");
    const auto [ours, theirs] = socketPair();
    other = theirs;
    loop->run([&, ours = ours] { stream.emplace(loop, kj::AutoCloseFd(ours), otherSide); });
  }
  void send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = ::write(other, bytes.data(), bytes.size());
      ASSERT_GT(sent, 0);
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  void sendWithDescriptor(std::string_view bytes, int descriptor) const {
    WithDescriptor message(const_cast<char*>(bytes.data()), bytes.size());
    cmsghdr* const part = CMSG_FIRSTHDR(&message.header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(part), &descriptor, sizeof descriptor);
    ASSERT_EQ(::sendmsg(other, &message.header, 0), static_cast<ssize_t>(bytes.size()));
  }

  struct Came {
    bool isMessage = false;  // else the end
    bool isAsExpected = false;
    std::vector<ino_t> files;  // of the descriptors
    std::string failure;
    bool isDisconnected = false;
  };
  // The next message, which should be of so many words.
  std::future<Came> read(unsigned words, unsigned seed) {
    auto promise = std::make_shared<std::promise<Came>>();
    auto future = promise->get_future();
    loop->post([this, words, seed, promise] {
      auto space = kj::heapArray<kj::AutoCloseFd>(2);
      auto reading = stream->tryReadMessage(space, capnp::ReaderOptions(), nullptr);
      reading
          .then([promise, words, seed, space = kj::mv(space)](auto&& read) {
            Came came;
            KJ_IF_MAYBE (message, read) {
              came.isMessage = true;
              came.isAsExpected = isMessageOf(*message->reader, words, seed);
              for (const auto& descriptor : message->fds) {
                struct stat status {};
                ::fstat(descriptor.get(), &status);
                came.files.push_back(status.st_ino);
              }
            }
            promise->set_value(came);
          })
          .detach([promise](kj::Exception&& exception) {
            promise->set_value(
                {.failure = exception.getDescription().cStr(),
                 .isDisconnected = exception.getType() == kj::Exception::Type::DISCONNECTED});
          });
    });
    return future;
  }

  std::shared_ptr<Loop> loop;
  std::optional<SocketStream> stream;
  int other = -1;
};

TEST_F(SocketStreamTest, MessagesOfAllLengthsComeInAnyPieces) {
  open();
  const std::vector<unsigned> lengths = {0,    1,    2000,    3, 8190,   8191,
                                         8192, 8193, 100'000, 5, 20'000, 1};
  std::string all;
  for (unsigned i = 0; i < lengths.size(); ++i) all += bytesOf(messageOf(lengths[i], i));
  for (const std::size_t piece : {std::size_t{7}, std::size_t{4096}, all.size()}) {
    std::thread sender([&] {
      for (std::size_t from = 0; from < all.size(); from += piece)
        send(std::string_view(all).substr(from, piece));
    });
    for (unsigned i = 0; i < lengths.size(); ++i)
      EXPECT_TRUE(read(lengths[i], i).get().isAsExpected) << i << " in pieces of " << piece;
    sender.join();
  }
}

TEST_F(SocketStreamTest, ADescriptorComesWithItsMessage) {
  open();
  const kj::AutoCloseFd file(::memfd_create("passed", MFD_CLOEXEC));
  struct stat status {};
  ASSERT_EQ(::fstat(file.get(), &status), 0);
  // A short one, and one that is longer than what is read at once.
  for (const unsigned words : {5U, 15'000U}) {
    send(bytesOf(messageOf(10, 1)));
    sendWithDescriptor(bytesOf(messageOf(words, 2)), file.get());
    send(bytesOf(messageOf(10, 3)));  // all there before the first is read
    const Came first = read(10, 1).get();
    const Came second = read(words, 2).get();
    const Came third = read(10, 3).get();
    EXPECT_TRUE(first.isAsExpected && second.isAsExpected && third.isAsExpected);
    EXPECT_TRUE(first.files.empty());
    EXPECT_EQ(second.files, std::vector{status.st_ino});
    EXPECT_TRUE(third.files.empty());
  }
}

TEST_F(SocketStreamTest, ADescriptorThatIsRefusedIsClosed) {
  open(OtherSide::untrusted);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  sendWithDescriptor(bytesOf(messageOf(1, 1)), ends[1]);
  ::close(ends[1]);
  EXPECT_TRUE(read(1, 1).get().files.empty());
  char byte = 0;
  EXPECT_EQ(::read(ends[0], &byte, 1), 0) << "nobody has the other end";
  ::close(ends[0]);
}

TEST_F(SocketStreamTest, TheEndBetweenMessagesIsNoFailure) {
  open();
  auto coming = read(0, 0);
  ::close(std::exchange(other, -1));
  const Came came = coming.get();
  EXPECT_FALSE(came.isMessage);
  EXPECT_EQ(came.failure, "");
}

TEST_F(SocketStreamTest, TheEndWithinAMessageIsADisconnection) {
  open();
  const auto message = messageOf(100, 1);
  send(bytesOf(message).substr(0, 101));
  ::close(std::exchange(other, -1));
  EXPECT_TRUE(read(100, 1).get().isDisconnected);
}

TEST_F(SocketStreamTest, AMessageThatWouldBeTooLongIsRefusedAtItsBegin) {
  for (const std::string_view begin : {std::string_view("\0\0\0\0\xff\xff\xff\x7f", 8),
                                       std::string_view("\xf0\xff\xff\xff\0\0\0\0", 8),
                                       std::string_view("\xff\x0f\0\0\0\0\0\0", 8)}) {
    open();
    send(begin);
    const Came came = read(0, 0).get();
    EXPECT_FALSE(came.isMessage);
    EXPECT_NE(came.failure.find("too long"), std::string::npos) << came.failure;
    loop->run([this] { stream.reset(); });
    ::close(std::exchange(other, -1));
  }
}

TEST_F(SocketStreamTest, WhatTheOtherSideDoesNotTakeYetIsWrittenWhenItDoes) {
  open();
  constexpr unsigned kMessages = 40;
  std::promise<void> written;
  loop->post([&] {
    kj::Promise<void> last = kj::READY_NOW;
    for (unsigned i = 0; i < kMessages; ++i) {
      last = last.then([this, i] {
        capnp::MallocMessageBuilder message(64);  // in many segments
        auto policies = message.initRoot<wire::Policies::ReadResults>().initPolicies(20'000);
        for (unsigned at = 0; at < 20'000; ++at) policies.set(at, i + at);
        auto segments = kj::heapArray(message.getSegmentsForOutput());
        return stream->writeMessage(nullptr, segments);
      });
    }
    last.then([&written] { written.set_value(); }).detach([](kj::Exception&&) { FAIL(); });
  });
  auto done = written.get_future();
  EXPECT_EQ(done.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  std::string expected;
  for (unsigned i = 0; i < kMessages; ++i) expected += bytesOf(messageOf(20'000, i));
  std::string got(expected.size(), '\0');
  for (std::size_t at = 0; at < got.size();) {
    const ssize_t count = ::read(other, got.data() + at, got.size() - at);
    ASSERT_GT(count, 0);
    at += static_cast<std::size_t>(count);
  }
  EXPECT_EQ(done.wait_for(kSoon), std::future_status::ready);
  EXPECT_TRUE(got.size() == expected.size());
}

// What ends a question is waited for by nobody.
kj::Array<capnp::word> finishOf(unsigned question) {
  capnp::MallocMessageBuilder message;
  message.initRoot<capnp::rpc::Message>().initFinish().setQuestionId(question);
  return capnp::messageToFlatArray(message);
}

class UnhurriedTest : public SocketStreamTest {
 protected:
  UnhurriedTest() { open(); }

  // In the loop, one after the other.
  void write(const std::vector<kj::Array<capnp::word>>& messages, int descriptor = -1) {
    loop->run([&] {
      for (const auto& message : messages) {
        ASSERT_EQ(message.asBytes()[0], 0) << "more than one segment";
        // The table is the stream's own business.
        const kj::ArrayPtr<const capnp::word> segment = message.slice(1, message.size());
        const bool isLast = &message == &messages.back();
        auto descriptors = kj::heapArray<int>(isLast && descriptor >= 0 ? 1 : 0);
        if (descriptors.size() > 0) descriptors[0] = descriptor;
        stream->writeMessage(descriptors, kj::arrayPtr(&segment, 1))
            .attach(kj::mv(descriptors))
            .detach([](kj::Exception&&) { ADD_FAILURE(); });
      }
    });
  }
  std::string receiveAll(std::size_t bytes) const {
    std::string got(bytes, '\0');
    for (std::size_t at = 0; at < bytes;) {
      pollfd one{other, POLLIN, 0};
      if (::poll(&one, 1, 10'000) != 1) return got.substr(0, at);
      const ssize_t count = ::read(other, got.data() + at, bytes - at);
      if (count <= 0) return got.substr(0, at);
      at += static_cast<std::size_t>(count);
    }
    return got;
  }
};

TEST_F(UnhurriedTest, TheEndOfAQuestionGoesAloneOnlyAfterAWhile) {
  const std::string bytes(bytesOf(finishOf(7)));
  bool hasWaited = false;
  for (int attempt = 0; attempt < 50 && !hasWaited; ++attempt) {
    const auto begin = std::chrono::steady_clock::now();
    std::vector<kj::Array<capnp::word>> messages;
    messages.push_back(finishOf(7));
    write(messages);
    char byte = 0;
    const bool isThere = ::recv(other, &byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;
    // Whoever looks too late has seen nothing.
    const bool hasLookedInTime = std::chrono::steady_clock::now() - begin < Loop::kSoon / 2;
    EXPECT_FALSE(isThere && hasLookedInTime);
    hasWaited = !isThere;
    EXPECT_EQ(receiveAll(bytes.size()), bytes);
  }
  EXPECT_TRUE(hasWaited);
}

TEST_F(UnhurriedTest, ItGoesBeforeWhatIsSaidNext) {
  std::vector<kj::Array<capnp::word>> messages;
  std::string bytes;
  // More of them than are kept.
  for (unsigned i = 0; i < 500; ++i)
    messages.push_back(i % 60 == 59 ? messageOf(i, i) : finishOf(i));
  for (const auto& message : messages) bytes += bytesOf(message);
  write(messages);
  EXPECT_TRUE(receiveAll(bytes.size()) == bytes);
}

TEST_F(UnhurriedTest, ADescriptorGoesWithItsOwnMessage) {
  const kj::AutoCloseFd file(::memfd_create("passed", MFD_CLOEXEC));
  std::vector<kj::Array<capnp::word>> messages;
  messages.push_back(finishOf(1));
  messages.push_back(messageOf(3, 3));
  write(messages, file.get());
  const auto descriptorsOf = [this](std::size_t bytes) {
    std::string got(bytes, '\0');
    WithDescriptor message(got.data(), got.size());
    EXPECT_EQ(::recvmsg(other, &message.header, MSG_CMSG_CLOEXEC), static_cast<ssize_t>(bytes));
    const cmsghdr* const part = CMSG_FIRSTHDR(&message.header);
    if (part == nullptr) return 0;
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(part), sizeof descriptor);
    ::close(descriptor);
    return 1;
  };
  EXPECT_EQ(descriptorsOf(bytesOf(messages[0]).size()), 0);
  EXPECT_EQ(descriptorsOf(bytesOf(messages[1]).size()), 1);
}

TEST_F(UnhurriedTest, ItIsNotLostWhereTheOtherSideTakesNoMore) {
  std::vector<kj::Array<capnp::word>> messages;
  for (unsigned i = 0; i < 400; ++i) {
    messages.push_back(finishOf(i));
    messages.push_back(messageOf(900, i));
  }
  messages.push_back(finishOf(400));
  std::string bytes;
  for (const auto& message : messages) bytes += bytesOf(message);
  write(messages);
  EXPECT_TRUE(receiveAll(bytes.size()) == bytes);
}

TEST_F(SocketStreamTest, WritingToWhoIsGoneIsADisconnection) {
  open();
  ::close(std::exchange(other, -1));
  std::promise<bool> disconnected;
  loop->post([&] {
    capnp::MallocMessageBuilder message;
    message.initRoot<wire::Entry>();
    stream->writeMessage(nullptr, message.getSegmentsForOutput())
        .then([&] { disconnected.set_value(false); })
        .detach([&](kj::Exception&& exception) {
          disconnected.set_value(exception.getType() == kj::Exception::Type::DISCONNECTED);
        });
  });
  EXPECT_TRUE(disconnected.get_future().get());
}

}  // namespace
}  // namespace kestrune::boundary::test
