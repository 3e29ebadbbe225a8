#include "service/test/Client.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cctype>
#include <cerrno>
#include <stdexcept>

namespace kestrune::service {
namespace {

namespace http = boost::beast::http;

constexpr int kDeadlineMilliseconds = 20'000;

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

}  // namespace

std::string Answer::field(const std::string& name) const {
  const auto found = fields.find(name);
  return found == fields.end() ? "" : found->second;
}

Client::Client(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("the service cannot be reached");
  }
  // A body that is sent after its header would wait for the other side's delayed acknowledgement.
  const int now = 1;
  ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
}

void Client::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) throw std::runtime_error("the service closed while the test was sending");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::size_t Client::sendWhatFits(std::string_view bytes) const {
  const ssize_t sent =
      ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

Answer Client::call(const std::string& method, const std::string& target, const Fields& fields,
                    std::optional<std::string_view> body) {
  std::string request = fmt::format("{} {} HTTP/1.1\r\nHost: test\r\n", method, target);
  for (const auto& [name, value] : fields) request += fmt::format("{}: {}\r\n", name, value);
  if (body) request += fmt::format("Content-Length: {}\r\n", body->size());
  request += "\r\n";
  send(request);
  if (body) send(*body);
  return readAnswer(method != "HEAD");
}

bool Client::readMore() {
  pollfd waiting{socket_.get(), POLLIN, 0};
  if (::poll(&waiting, 1, kDeadlineMilliseconds) != 1)
    throw std::runtime_error("no answer in time");
  std::string piece(64U << 10U, '\0');
  const ssize_t count = ::recv(socket_.get(), piece.data(), piece.size(), 0);
  if (count < 0) throw ConnectionEnded("the connection was reset");
  unread_.append(piece, 0, static_cast<std::size_t>(count));
  return count > 0;
}

Answer Client::readAnswer(bool bodyExpected) {
  http::response_parser<http::string_body> parser;
  parser.body_limit(boost::none);
  parser.skip(!bodyExpected);
  parser.eager(true);
  while (!parser.is_done()) {
    boost::system::error_code error;
    const std::size_t used = parser.put(boost::asio::buffer(unread_), error);
    unread_.erase(0, used);
    if (error && error != http::error::need_more) throw std::runtime_error(error.message());
    if (parser.is_done()) break;
    if (!readMore()) {
      if (!parser.got_some()) throw ConnectionEnded("the connection ended without an answer");
      parser.put_eof(error);
      if (error || !parser.is_done()) throw ConnectionEnded("the answer was cut off");
    }
  }
  Answer answer;
  answer.status = parser.get().result_int();
  answer.keepAlive = parser.keep_alive();
  for (const auto& field : parser.get()) {
    answer.fields[lowerCase(std::string(field.name_string()))] = std::string(field.value());
  }
  answer.body = std::move(parser.get().body());
  return answer;
}

std::string Client::readUntil(std::string_view end) {
  std::size_t searched = 0;
  std::size_t found = 0;
  while ((found = unread_.find(end, searched)) == std::string::npos) {
    searched = unread_.size() < end.size() ? 0 : unread_.size() - end.size() + 1;
    if (!readMore()) throw ConnectionEnded("the connection ended early");
  }
  std::string text = unread_.substr(0, found + end.size());
  unread_.erase(0, text.size());
  return text;
}

bool Client::closedByPeer() { return unread_.empty() && !readMore(); }

void Client::close() { socket_.reset(); }

void Client::reset() {
  const linger now{1, 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
  socket_.reset();
}

}  // namespace kestrune::service
