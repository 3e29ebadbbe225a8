// One HTTP request and its answer: what the endpoints work with. They know nothing of sockets,
// keep-alive or framing.
//
//     (readBody* | readWholeBody | pourBody)
//     (reply | replyFile | replyStream (writePiece* finishStream)?)
//
// An answer may be given without the body having been read; the connection is then closed after it.
// An endpoint that throws a ServiceError before it began an answer is answered with that error.
//
// Threads: one coroutine at a time, on the connection's executor.
// Fails: boost::system::system_error when the connection is lost; ServiceError 408 for a body that
// comes too slowly, 400 for one that is malformed.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/FileDescriptor.h"
#include "service/Options.h"
#include "service/Stream.h"

namespace kestrune::service {

struct Reply {
  unsigned status = 200;
  std::string contentType;
  std::string body;
  std::vector<std::pair<std::string, std::string>> fields;
};

/// A part of a file as an answer.
struct FileReply {
  unsigned status = 200;
  std::string contentType;
  std::vector<std::pair<std::string, std::string>> fields;
  FileDescriptor file;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

class Exchange {
 public:
  using HeaderParser = boost::beast::http::request_parser<boost::beast::http::empty_body>;

  /// `parser` has read the header; `buffer` holds what was read beyond it and, afterwards, what
  /// belongs to the next request. `stream`, `buffer` and `timeouts` outlive this object.
  Exchange(Stream& stream, boost::beast::flat_buffer& buffer, const Timeouts& timeouts,
           HeaderParser&& parser);

  std::string_view method() const;
  /// The path and the query, as sent.
  std::string_view target() const;
  /// The value of a header field; empty if absent.
  std::string_view field(std::string_view name) const;
  /// Where the client reached this service: "127.0.0.1:8080", "[::1]:8080".
  std::string localAuthority() const;

  /// Who is at the other end of the connection: a proxy, where there is one.
  boost::asio::ip::address peerAddress() const;

  /// The announced length; nothing for a body without one. 0 for a request without a body.
  std::optional<std::uint64_t> bodyLength() const;
  /// Reads at least one byte of the body into `buffer`; 0 at its end. A client that waits for
  /// permission to send gets it with the first call.
  boost::asio::awaitable<std::size_t> readBody(boost::asio::mutable_buffer buffer);
  /// Gives the whole body to `sink`, on file threads: for bodies too large to be handed on in
  /// pieces.
  /// REQUIRES: a body of known length, nothing of which has been read.
  boost::asio::awaitable<void> pourBody(Stream::Sink sink, FileThreads* fileThreads);
  /// The whole body. ServiceError 413 if it is longer than `limitBytes`.
  boost::asio::awaitable<std::string> readWholeBody(std::size_t limitBytes);

  boost::asio::awaitable<void> reply(Reply reply);
  boost::asio::awaitable<void> replyJson(nlohmann::json value);
  boost::asio::awaitable<void> replyFile(FileReply reply, FileThreads* fileThreads);

  /// Begins an answer of unknown length.
  boost::asio::awaitable<void> beginStream(Reply head);
  boost::asio::awaitable<void> writePiece(std::string_view piece);
  boost::asio::awaitable<void> finishStream();

  /// Lets the connection end with this exchange.
  void closeAfterwards() { keepAlive_ = false; }

  // For the connection:

  /// Whether an answer was begun, so that no other can be given.
  bool answerBegun() const { return begun_; }
  /// Whether the answer was given as a whole.
  bool answered() const { return finished_; }
  bool bodyRead() const { return bodyEnded_; }
  /// Whether another request may follow on the connection.
  bool keepAlive() const { return keepAlive_ && bodyEnded_; }

 private:
  using BodyParser = boost::beast::http::request_parser<boost::beast::http::buffer_body>;
  using Head = boost::beast::http::response<boost::beast::http::empty_body>;

  Head headFor(unsigned status, const std::string& contentType,
               const std::vector<std::pair<std::string, std::string>>& fields);
  boost::asio::awaitable<void> permitBody();
  boost::asio::awaitable<std::size_t> readPlain(boost::asio::mutable_buffer buffer);
  boost::asio::awaitable<std::size_t> readChunked(boost::asio::mutable_buffer buffer);

  Stream& stream_;
  boost::beast::flat_buffer& buffer_;
  const Timeouts& timeouts_;
  boost::beast::http::request<boost::beast::http::empty_body> request_;
  /// Null for bodies of known length.
  std::unique_ptr<BodyParser> chunks_;
  std::uint64_t length_ = 0;
  std::uint64_t remaining_ = 0;
  bool permitted_ = false;
  bool bodyEnded_ = false;
  bool keepAlive_ = true;
  bool chunkedAnswer_ = false;
  bool begun_ = false;
  bool finished_ = false;
};

/// "Wed, 01 May 2024 12:30:45 GMT"; years outside 0 to 9999 give an empty text.
std::string httpDate(std::int64_t secondsSince1970);

}  // namespace kestrune::service
