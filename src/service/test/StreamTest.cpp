#include "service/Stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/asio/write.hpp>
#include <future>
#include <thread>

#include "service/FileDescriptor.h"
#include "service/test/RunningService.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// A stream and its peer, a plain socket in the test's hands.
class StreamTest : public ::testing::Test {
 protected:
  StreamTest() {
    tcp::acceptor acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    peer.connect(acceptor.local_endpoint());
    stream = std::make_shared<Stream>(acceptor.accept());
    thread = std::thread([this] { context.run(); });
  }
  ~StreamTest() override {
    asio::post(context, [this] { stream->close(); });
    work.reset();
    thread.join();
    fileThreads.join();
  }

  template <class T>
  std::future<T> spawn(asio::awaitable<T> operation) {
    return asio::co_spawn(context, std::move(operation), asio::use_future);
  }
  void onStream(const std::function<void()>& action) {
    asio::post(context, std::packaged_task<void()>(action)).get();
  }
  std::string readAll() {
    std::string all;
    std::string piece(1U << 20U, '\0');
    boost::system::error_code error;
    while (!error) all.append(piece, 0, peer.read_some(asio::buffer(piece), error));
    return all;
  }

  asio::io_context context;
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  tcp::socket peer{context};
  std::shared_ptr<Stream> stream;
  FileThreads fileThreads{2};
  std::thread thread;
};

TEST_F(StreamTest, SendsAFileThatIsNotInThePageCache) {
  const support::TemporaryDirectory files;
  const std::string contents = patternBytes(20U << 20U, 1);
  const auto path = files.write("cold.bin", contents);
  const FileDescriptor file(::open(path.c_str(), O_RDONLY));
  ASSERT_EQ(::fsync(file.get()), 0);
  ASSERT_EQ(::posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED), 0);
  auto sent =
      spawn(stream->sendFile(file.get(), 5, contents.size() - 10, seconds(20), &fileThreads));
  auto read = std::async(std::launch::async, [this] { return readAll(); });
  sent.get();
  onStream([this] { stream->close(); });
  EXPECT_EQ(read.get(), contents.substr(5, contents.size() - 10));
}

TEST_F(StreamTest, ReceivesExactlyWhatWasWantedInOrder) {
  const std::string contents = patternBytes(20U << 20U, 2);
  std::string received;
  auto done = spawn(stream->receive(
      contents.size() - 3,
      [&](const char* data, std::size_t length) { received.append(data, length); }, seconds(20),
      &fileThreads));
  asio::write(peer, asio::buffer(contents));
  done.get();
  EXPECT_EQ(received, contents.substr(0, contents.size() - 3));
  std::string rest(10, '\0');
  auto more = spawn(stream->readSome(asio::buffer(rest), seconds(20)));
  EXPECT_EQ(more.get(), 3U);
}

TEST_F(StreamTest, AReceiverThatGetsNothingTimesOut) {
  auto done = spawn(stream->receive(
      1, [](const char*, std::size_t) {}, milliseconds(50), &fileThreads));
  EXPECT_THROW(done.get(), TimedOut);
  // The peer can still be told.
  spawn(stream->write({asio::buffer("x", 1)}, seconds(20))).get();
}

TEST_F(StreamTest, TheDescriptorStaysOpenWhileAFileThreadUsesIt) {
  std::promise<void> begun;
  std::promise<void> mayEnd;
  auto done = spawn(stream->receive(
      1000,
      [&](const char*, std::size_t) {
        begun.set_value();
        mayEnd.get_future().wait();
      },
      seconds(20), &fileThreads));
  asio::write(peer, asio::buffer(std::string(1, 'x')));
  begun.get_future().wait();
  const int descriptor = stream->socket().native_handle();
  onStream([this] { stream->abort(); });
  EXPECT_NE(::fcntl(descriptor, F_GETFD), -1) << "the number may belong to somebody else now";
  mayEnd.set_value();
  EXPECT_THROW(done.get(), boost::system::system_error);
  EXPECT_FALSE(stream->socket().is_open());
}

}  // namespace
}  // namespace kestrune::service
