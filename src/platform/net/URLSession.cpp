#include "platform/net/URLSession.h"

#include <utility>

#include "platform/net/CurlDriver.h"
#include "platform/net/DataSink.h"
#include "platform/net/DownloadSink.h"
#include "platform/net/StreamSink.h"
#include "platform/tasks/Continuation.h"

namespace kestrune::platform {

namespace {

// All that a data request needs, by value: its session may be gone before it ends.
Task<URLReply> collect(std::shared_ptr<CurlDriver> driver, URLSessionConfiguration configuration,
                       URLRequest request, std::unique_ptr<BodySource> body) {
  auto started = std::make_shared<std::weak_ptr<Transfer>>();
  auto begin = [&](Continuation<URLReply> continuation) {
    auto sink = std::make_unique<DataSink>(std::move(continuation), configuration.maximumDataBytes);
    auto transfer = std::make_shared<Transfer>(std::move(request), configuration, std::move(body),
                                               std::move(sink));
    *started = transfer;
    driver->add(std::move(transfer));
  };
  auto cancel = [driver, started] {
    if (auto transfer = started->lock()) driver->cancel(std::move(transfer));
  };
  URLReply reply = co_await suspendUntilResumed<URLReply>(begin, cancel);
  co_return reply;
}

Task<URLReply> collectFromFile(std::shared_ptr<CurlDriver> driver,
                               URLSessionConfiguration configuration, URLRequest request,
                               std::filesystem::path file) {
  auto body = BodySource::fromFile(file);
  co_return co_await collect(std::move(driver), configuration, std::move(request), std::move(body));
}

Task<URLByteStream> openStream(std::shared_ptr<CurlDriver> driver,
                               URLSessionConfiguration configuration, URLRequest request) {
  auto source = std::make_shared<URLByteStream::Source>(driver);
  auto sink = std::make_unique<StreamSink>(source);
  auto transfer =
      std::make_shared<Transfer>(std::move(request), configuration, nullptr, std::move(sink));
  source->attach(transfer);
  auto begin = [&](Continuation<HTTPURLResponse> continuation) {
    source->awaitResponse(std::move(continuation));
    driver->add(std::move(transfer));
  };
  auto cancel = [source] { source->cancel(); };
  HTTPURLResponse response = co_await suspendUntilResumed<HTTPURLResponse>(begin, cancel);
  co_return URLByteStream(std::move(response), std::move(source));
}

}  // namespace

URLByteStream::URLByteStream(HTTPURLResponse response, std::shared_ptr<Source> source)
    : response_(std::move(response)), source_(std::move(source)) {}
URLByteStream::URLByteStream(URLByteStream&&) noexcept = default;
URLByteStream& URLByteStream::operator=(URLByteStream&& other) noexcept {
  if (this != &other) {
    if (source_) source_->cancel();
    response_ = std::move(other.response_);
    source_ = std::move(other.source_);
  }
  return *this;
}

URLByteStream::~URLByteStream() {
  if (source_) source_->cancel();
}

Task<std::optional<ByteBuffer>> URLByteStream::next(ByteBuffer memory) {
  auto source = source_;
  auto begin = [source, &memory](Continuation<Source::Piece> continuation) {
    source->take(std::move(continuation), std::move(memory));
  };
  auto cancel = [source] { source->cancel(); };
  Source::Piece piece = co_await suspendUntilResumed<Source::Piece>(begin, cancel);
  co_return piece;
}

URLSessionDownloadTask::URLSessionDownloadTask(std::shared_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

void URLSessionDownloadTask::observe(Observer observer) {
  implementation_->setObserver(std::move(observer));
}

void URLSessionDownloadTask::invalidateObservation() { implementation_->clearObserver(); }

void URLSessionDownloadTask::resume() { implementation_->start(implementation_); }

void URLSessionDownloadTask::cancel() { implementation_->cancel(); }

URLSession::URLSession(URLSessionConfiguration configuration)
    : configuration_(configuration), driver_(CurlDriver::start(configuration)) {}

URLSession::~URLSession() { driver_->stop(); }

URLSession& URLSession::shared() {
  static auto* const session =
      new URLSession(URLSessionConfiguration());  // used until the process ends
  return *session;
}

Task<URLReply> URLSession::data(URLRequest request) {
  return collect(driver_, configuration_, std::move(request), nullptr);
}

Task<URLReply> URLSession::uploadFromFile(URLRequest request, std::filesystem::path file) {
  return collectFromFile(driver_, configuration_, std::move(request), std::move(file));
}

Task<URLReply> URLSession::uploadFromData(URLRequest request,
                                          std::shared_ptr<const std::string> body) {
  return collect(driver_, configuration_, std::move(request),
                 BodySource::fromData(std::move(body)));
}

Task<URLByteStream> URLSession::bytes(URLRequest request) {
  return openStream(driver_, configuration_, std::move(request));
}

std::shared_ptr<URLSessionDownloadTask> URLSession::downloadTask(
    URL url, URLSessionDownloadTask::CompletionHandler completionHandler) {
  return std::make_shared<URLSessionDownloadTask>(
      std::make_shared<URLSessionDownloadTask::Implementation>(
          driver_, std::move(url), configuration_, std::move(completionHandler)));
}

void URLSession::invalidateAndCancel() { driver_->invalidate(); }

}  // namespace kestrune::platform
