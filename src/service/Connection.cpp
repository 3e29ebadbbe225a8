#include "service/Connection.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/system/system_error.hpp>
#include <optional>
#include <utility>

#include "service/ServiceLog.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;

/// A path of 4,095 bytes is 12,285 when every byte is encoded; the rest is for header fields.
constexpr std::uint32_t kHeaderBytes = 32U << 10U;

bool isMalformed(const error_code& error) {
  return error.category() == error_code(http::error::bad_target).category() &&
         error != http::error::end_of_stream && error != http::error::partial_message;
}

Reply replyFor(const ServiceError& error) {
  Reply reply;
  reply.status = error.status();
  reply.contentType = "text/plain; charset=utf-8";
  reply.body = error.text();
  reply.fields = error.fields();
  return reply;
}

/// What the client is told about the present exception; nothing when the connection itself is lost.
/// REQUIRES: inside a catch block.
std::optional<ServiceError> presentFailure() {
  try {
    throw;
  } catch (const ServiceError& error) {
    return error;
  } catch (const TimedOut&) {
    return std::nullopt;
  } catch (const boost::system::system_error&) {
    return std::nullopt;
  } catch (const std::exception& error) {
    serviceLog().write(platform::LogLevel::fault, "request failed: %{public}s", error.what());
    return ServiceError(500, "internal error");
  }
}

}  // namespace

Connection::Connection(Stream::Socket socket, RequestHandler& handler, const Timeouts& timeouts)
    : handler_(handler),
      timeouts_(timeouts),
      executor_(socket.get_executor()),
      stream_(std::make_shared<Stream>(std::move(socket))) {}

void Connection::finish() {
  finishing_ = true;
  asio::dispatch(executor_, [self = shared_from_this()] {
    if (self->waiting_) self->stream_->close();
    if (self->present_) self->present_->closeAfterwards();
  });
}

void Connection::abort() {
  finishing_ = true;
  asio::dispatch(executor_, [self = shared_from_this()] { self->stream_->abort(); });
}

asio::awaitable<void> Connection::run(std::shared_ptr<Connection> self) {
  bool lost = false;
  try {
    co_await self->serve();
  } catch (const TimedOut&) {
    lost = true;
  } catch (const boost::system::system_error&) {
    lost = true;
  }
  if (lost) self->stream_->abort();
}

asio::awaitable<void> Connection::serve() {
  for (;;) {
    const bool another = co_await serveOne();
    if (!another) break;
  }
  stream_->close();
}

asio::awaitable<bool> Connection::waitForRequest() {
  if (finishing_) co_return false;
  if (buffer_.size() > 0) co_return true;
  waiting_ = true;
  bool idle = false;
  std::size_t count = 0;
  constexpr std::size_t kFirstRead = 4096;
  try {
    count = co_await stream_->readSome(buffer_.prepare(kFirstRead), timeouts_.keepAlive);
  } catch (const TimedOut&) {
    idle = true;
  }
  waiting_ = false;
  buffer_.commit(count);
  co_return !idle && count > 0;
}

asio::awaitable<bool> Connection::serveOne() {
  const bool arrived = co_await waitForRequest();
  if (!arrived) co_return false;
  Exchange::HeaderParser parser;
  parser.header_limit(kHeaderBytes);
  parser.body_limit(boost::none);
  error_code error;
  {
    const Stream::Limit limit(*stream_, timeouts_.header);
    co_await http::async_read_header(stream_->socket(), buffer_, parser,
                                     asio::redirect_error(asio::use_awaitable, error));
  }
  std::optional<ServiceError> refusal;
  if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    refusal.emplace(431, "the header is too large");
  } else if (error && isMalformed(error)) {
    refusal.emplace(400, "the request is malformed");
  } else if (error && stream_->expired()) {
    refusal.emplace(408, "the header came too slowly");
  }
  if (refusal) {
    co_await refuseHeader(std::move(*refusal));
    co_return false;
  }
  stream_->check(error);
  auto exchange = std::make_shared<Exchange>(*stream_, buffer_, timeouts_, std::move(parser));
  co_return co_await answer(std::move(exchange));
}

asio::awaitable<bool> Connection::answer(std::shared_ptr<Exchange> exchange) {
  present_ = exchange;
  if (finishing_) exchange->closeAfterwards();
  std::optional<ServiceError> failure;
  bool lost = false;
  try {
    co_await handler_.handle(exchange);
  } catch (...) {
    failure = presentFailure();
    lost = !failure;
  }
  if (failure && !failure->detail().empty()) {
    serviceLog().write(platform::LogLevel::error, "request failed: %{public}s", failure->detail());
  }
  if (lost || (failure && exchange->answerBegun())) {
    present_.reset();
    stream_->abort();
    co_return false;
  }
  if (failure) co_await exchange->reply(replyFor(*failure));
  present_.reset();
  if (exchange->keepAlive()) co_return true;
  if (!exchange->bodyRead()) co_await stream_->closeGently();
  co_return false;
}

asio::awaitable<void> Connection::refuseHeader(ServiceError error) {
  http::response<http::string_body> response;
  response.result(error.status());
  response.set(http::field::server, "kestrune-service");
  response.set(http::field::content_type, "text/plain; charset=utf-8");
  response.keep_alive(false);
  response.body() = error.text();
  response.prepare_payload();
  error_code lost;
  {
    const Stream::Limit limit(*stream_, timeouts_.header);
    co_await http::async_write(stream_->socket(), response,
                               asio::redirect_error(asio::use_awaitable, lost));
  }
  stream_->check(lost);
  co_await stream_->closeGently();
}

}  // namespace kestrune::service
