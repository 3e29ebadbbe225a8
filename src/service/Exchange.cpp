#include "service/Exchange.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/redirect_error.hpp>
#include <boost/beast/http/read.hpp>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;

std::string_view view(boost::beast::string_view text) { return {text.data(), text.size()}; }

std::string textOf(const http::response<http::empty_body>& head) {
  std::string text = fmt::format("HTTP/{}.{} {} {}\r\n", head.version() / 10, head.version() % 10,
                                 head.result_int(), view(head.reason()));
  for (const auto& field : head) {
    text.append(view(field.name_string())).append(": ").append(view(field.value())).append("\r\n");
  }
  return text.append("\r\n");
}

}  // namespace

std::string httpDate(std::int64_t secondsSince1970) {
  constexpr std::int64_t kYear10000 = 253'402'300'800;
  constexpr std::int64_t kYear0 = -62'167'219'200;
  if (secondsSince1970 < kYear0 || secondsSince1970 >= kYear10000) return {};
  return fmt::format("{:%a, %d %b %Y %H:%M:%S} GMT",
                     fmt::gmtime(static_cast<std::time_t>(secondsSince1970)));
}

Exchange::Exchange(Stream& stream, boost::beast::flat_buffer& buffer, const Timeouts& timeouts,
                   HeaderParser&& parser)
    : stream_(stream), buffer_(buffer), timeouts_(timeouts) {
  keepAlive_ = parser.keep_alive();
  if (parser.chunked()) {
    request_ = parser.get();
    chunks_ = std::make_unique<BodyParser>(std::move(parser));
    chunks_->body_limit(boost::none);
  } else {
    length_ = parser.content_length().value_or(0);
    remaining_ = length_;
    bodyEnded_ = remaining_ == 0;
    request_ = parser.release();
  }
}

std::string_view Exchange::method() const { return view(request_.method_string()); }

std::string_view Exchange::target() const { return view(request_.target()); }

std::string_view Exchange::field(std::string_view name) const {
  return view(request_[boost::beast::string_view(name.data(), name.size())]);
}

std::string Exchange::localAuthority() const {
  const auto endpoint = stream_.socket().local_endpoint();
  const auto address = endpoint.address();
  if (!address.is_v6()) return fmt::format("{}:{}", address.to_string(), endpoint.port());
  const auto v6 = address.to_v6();
  if (v6.is_v4_mapped()) {
    return fmt::format("{}:{}", asio::ip::make_address_v4(asio::ip::v4_mapped, v6).to_string(),
                       endpoint.port());
  }
  return fmt::format("[{}]:{}", v6.to_string(), endpoint.port());
}

asio::ip::address Exchange::peerAddress() const {
  error_code gone;
  return stream_.socket().remote_endpoint(gone).address();
}

std::optional<std::uint64_t> Exchange::bodyLength() const {
  if (chunks_) return std::nullopt;
  return length_;
}

asio::awaitable<void> Exchange::permitBody() {
  if (permitted_) co_return;
  permitted_ = true;
  if (!boost::beast::iequals(std::string(field("Expect")), "100-continue")) co_return;
  static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
  co_await stream_.write({asio::buffer(kContinue)}, timeouts_.body);
}

asio::awaitable<std::size_t> Exchange::readBody(asio::mutable_buffer buffer) {
  if (bodyEnded_ || buffer.size() == 0) co_return 0;
  co_await permitBody();
  bool slow = false;
  std::size_t count = 0;
  try {
    if (chunks_) {
      count = co_await readChunked(buffer);
    } else {
      count = co_await readPlain(buffer);
    }
  } catch (const TimedOut&) {
    slow = true;
  }
  if (slow) throw ServiceError(408, "the body came too slowly");
  co_return count;
}

asio::awaitable<void> Exchange::pourBody(Stream::Sink sink, FileThreads* fileThreads) {
  co_await permitBody();
  const std::size_t early =
      static_cast<std::size_t>(std::min<std::uint64_t>(buffer_.size(), remaining_));
  if (early > 0) {
    const auto* data = static_cast<const char*>(buffer_.data().data());
    co_await fileThreads->run([&] { sink(data, early); });
    buffer_.consume(early);
  }
  bool slow = false;
  try {
    co_await stream_.receive(remaining_ - early, std::move(sink), timeouts_.body, fileThreads);
  } catch (const TimedOut&) {
    slow = true;
  }
  if (slow) throw ServiceError(408, "the body came too slowly");
  remaining_ = 0;
  bodyEnded_ = true;
}

asio::awaitable<std::size_t> Exchange::readPlain(asio::mutable_buffer buffer) {
  const std::size_t wanted =
      static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), remaining_));
  std::size_t count = std::min(wanted, buffer_.size());
  if (count > 0) {
    std::memcpy(buffer.data(), buffer_.data().data(), count);
    buffer_.consume(count);
  } else {
    count = co_await stream_.readSome(asio::buffer(buffer, wanted), timeouts_.body);
    if (count == 0) throw boost::system::system_error(http::error::partial_message);
  }
  remaining_ -= count;
  bodyEnded_ = remaining_ == 0;
  co_return count;
}

asio::awaitable<std::size_t> Exchange::readChunked(asio::mutable_buffer buffer) {
  auto& body = chunks_->get().body();
  std::size_t count = 0;
  while (count == 0 && !chunks_->is_done()) {
    body.data = buffer.data();
    body.size = buffer.size();
    const Stream::Limit limit(stream_, timeouts_.body);
    error_code error;
    co_await http::async_read_some(stream_.socket(), buffer_, *chunks_,
                                   asio::redirect_error(asio::use_awaitable, error));
    count = buffer.size() - body.size;
    if (error == http::error::need_buffer) error = {};
    if (error && error.category() == error_code(http::error::bad_chunk).category() &&
        error != http::error::partial_message && error != http::error::end_of_stream) {
      throw badRequest("the chunks of the body are malformed");
    }
    stream_.check(error);
  }
  bodyEnded_ = chunks_->is_done();
  co_return count;
}

asio::awaitable<std::string> Exchange::readWholeBody(std::size_t limitBytes) {
  const ServiceError tooLarge(413, "the body is too large");
  const auto announced = bodyLength();
  if (announced && *announced > limitBytes) throw tooLarge;
  std::string whole;
  std::vector<char> piece(16U << 10U);
  for (;;) {
    const std::size_t count = co_await readBody(asio::buffer(piece));
    if (count == 0) break;
    if (whole.size() + count > limitBytes) throw tooLarge;
    whole.append(piece.data(), count);
  }
  co_return whole;
}

Exchange::Head Exchange::headFor(unsigned status, const std::string& contentType,
                                 const std::vector<std::pair<std::string, std::string>>& fields) {
  Head head;
  head.version(request_.version());
  head.result(status);
  head.set(http::field::date, httpDate(std::time(nullptr)));
  head.set(http::field::server, "kestrune-service");
  if (!contentType.empty()) head.set(http::field::content_type, contentType);
  for (const auto& [name, value] : fields) head.insert(name, value);
  // An unread body would be taken for the next request.
  keepAlive_ = keepAlive_ && bodyEnded_;
  head.keep_alive(keepAlive_);
  return head;
}

asio::awaitable<void> Exchange::reply(Reply reply) {
  Head head = headFor(reply.status, reply.contentType, reply.fields);
  // The length in a 304 would be taken for that of the contents.
  constexpr unsigned kNotModified = 304;
  if (reply.status != kNotModified) head.content_length(reply.body.size());
  const std::string text = textOf(head);
  begun_ = true;
  std::vector<asio::const_buffer> parts{asio::buffer(text)};
  if (method() != "HEAD") parts.push_back(asio::buffer(reply.body));
  co_await stream_.write(std::move(parts), timeouts_.body);
  finished_ = true;
}

asio::awaitable<void> Exchange::replyJson(nlohmann::json value) {
  Reply json;
  json.contentType = "application/json";
  json.body = value.dump();
  co_await reply(std::move(json));
}

asio::awaitable<void> Exchange::replyFile(FileReply reply, FileThreads* fileThreads) {
  Head head = headFor(reply.status, reply.contentType, reply.fields);
  head.content_length(reply.length);
  const std::string text = textOf(head);
  begun_ = true;
  co_await stream_.write({asio::buffer(text)}, timeouts_.body);
  if (method() != "HEAD") {
    co_await stream_.sendFile(reply.file.get(), reply.offset, reply.length, timeouts_.body,
                              fileThreads);
  }
  finished_ = true;
}

asio::awaitable<void> Exchange::beginStream(Reply head) {
  Head response = headFor(head.status, head.contentType, head.fields);
  // Before HTTP/1.1 only the end of the connection ends an answer of unknown length.
  constexpr unsigned kFirstWithChunks = 11;
  chunkedAnswer_ = response.version() >= kFirstWithChunks;
  if (chunkedAnswer_) {
    response.chunked(true);
  } else {
    keepAlive_ = false;
    response.keep_alive(false);
  }
  const std::string text = textOf(response);
  begun_ = true;
  co_await stream_.write({asio::buffer(text)}, timeouts_.body);
}

asio::awaitable<void> Exchange::writePiece(std::string_view piece) {
  if (piece.empty()) co_return;
  if (!chunkedAnswer_) {
    co_await stream_.write({asio::buffer(piece)}, timeouts_.body);
    co_return;
  }
  const std::string size = fmt::format("{:x}\r\n", piece.size());
  static constexpr std::string_view kEnd = "\r\n";
  co_await stream_.write({asio::buffer(size), asio::buffer(piece), asio::buffer(kEnd)},
                         timeouts_.body);
}

asio::awaitable<void> Exchange::finishStream() {
  static constexpr std::string_view kLastChunk = "0\r\n\r\n";
  if (chunkedAnswer_) co_await stream_.write({asio::buffer(kLastChunk)}, timeouts_.body);
  finished_ = true;
}

}  // namespace kestrune::service
