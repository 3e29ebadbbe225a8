// The web page behind the links that people give each other: "/open/" and a path shows what lies
// there to who has signed in with the token. "/web/" has the page's own style, script and pictures.
//
// Whoever is not signed in gets the same form for every address, so nobody learns what exists. What
// users stored reaches a browser only as something that cannot act in this origin's name: see
// FilePreview and the fields of `contents`.
//
// Threads: callable from many connections at once.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <string>

#include "platform/values/Secret.h"
#include "service/Exchange.h"
#include "service/Parts.h"
#include "service/SignInLimiter.h"
#include "service/WebPages.h"
#include "service/WebSessions.h"

namespace kestrune::service {

class WebEndpoint {
 public:
  /// `parts` outlives this object.
  WebEndpoint(Parts& parts, const platform::Secret& token);

  /// Failures are answered with a page that says so.
  boost::asio::awaitable<void> handle(std::shared_ptr<Exchange> exchange);

 private:
  boost::asio::awaitable<void> route(std::shared_ptr<Exchange> exchange, WebRequest request);
  boost::asio::awaitable<void> asset(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> redirect(std::shared_ptr<Exchange> exchange, unsigned status,
                                        std::string target, std::string cookie);
  boost::asio::awaitable<void> replyPage(std::shared_ptr<Exchange> exchange, WebPage page);

  boost::asio::awaitable<void> post(std::shared_ptr<Exchange> exchange, WebRequest request);
  boost::asio::awaitable<void> signIn(std::shared_ptr<Exchange> exchange, WebRequest request,
                                      std::string token);
  boost::asio::awaitable<void> askToSignIn(std::shared_ptr<Exchange> exchange, WebRequest request);

  boost::asio::awaitable<void> open(std::shared_ptr<Exchange> exchange, WebRequest request);
  boost::asio::awaitable<void> folder(std::shared_ptr<Exchange> exchange, WebRequest request);
  boost::asio::awaitable<void> file(std::shared_ptr<Exchange> exchange, WebRequest request);
  boost::asio::awaitable<void> contents(std::shared_ptr<Exchange> exchange, WebRequest request);

  bool comesFromOwnPage(const Exchange& exchange) const;
  std::string cookie(std::string_view value, std::int64_t lifetimeSeconds) const;

  Parts& parts_;
  WebSessions sessions_;
  SignInLimiter limiter_;
  WebPages pages_;
};

}  // namespace kestrune::service
