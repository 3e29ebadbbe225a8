#include "service/WebEndpoint.h"

#include <fmt/format.h>
#include <unistd.h>

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "service/FileContents.h"
#include "service/ServiceError.h"
#include "service/ServiceLog.h"
#include "service/Time.h"
#include "service/WebAssets.h"
#include "service/WebText.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
using Fields = std::vector<std::pair<std::string, std::string>>;

constexpr std::size_t kPageEntries = 500;
/// What is read of a folder before others get their turn on the file thread.
constexpr std::size_t kEntriesAtOnce = 10'000;
/// The longest token, with every byte percent-encoded, and what stands around it.
constexpr std::size_t kMaxFormBytes = 256U << 10U;

/// The path of the address that clients reach the service by. Links are made from the address of the
/// interface, which may end with "/api", without that end.
std::string basePath(const std::optional<std::string>& publicURL) {
  if (!publicURL) return {};
  const std::size_t host = publicURL->find("://") + 3;
  const std::size_t slash = publicURL->find('/', host);
  std::string path = slash == std::string::npos ? "" : publicURL->substr(slash);
  constexpr std::string_view kInterface = "/api";
  if (path.ends_with(kInterface)) path.resize(path.size() - kInterface.size());
  return path;
}

/// The host and the port in a URL or an origin.
std::string_view authorityOf(std::string_view url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return {};
  const std::string_view rest = url.substr(scheme + 3);
  return rest.substr(0, rest.find('/'));
}

/// Who tries to sign in. A proxy on this machine tells whom it speaks for; another one's word is not
/// taken, because then anybody could give any address.
asio::ip::address callerOf(const Exchange& exchange) {
  asio::ip::address peer = exchange.peerAddress();
  if (!peer.is_loopback()) return peer;
  const std::string_view chain = exchange.field("X-Forwarded-For");
  // The last address is the one that the proxy saw itself.
  std::string_view last = chain.substr(chain.find_last_of(", ") + 1);
  boost::system::error_code malformed;
  const auto forwarded = asio::ip::make_address(std::string(last), malformed);
  return malformed ? peer : forwarded;
}

bool isKnownVersion(const Exchange& exchange, std::string_view tag) {
  // A tag is in quotes, and proxies may have put W/ before it.
  return exchange.field("If-None-Match").find(tag) != std::string_view::npos;
}

}  // namespace

WebEndpoint::WebEndpoint(Parts& parts, const platform::Secret& token)
    : parts_(parts),
      sessions_(parts.staging.signingKey(), token),
      pages_(basePath(parts.options.publicURL)) {}

asio::awaitable<void> WebEndpoint::handle(std::shared_ptr<Exchange> exchange) {
  const std::string path(exchange->target().substr(0, exchange->target().find('?')));
  if (path.starts_with("/web/")) co_return co_await asset(std::move(exchange));
  if (!path.starts_with("/open/"))
    co_return co_await redirect(std::move(exchange), 302, "/open/", {});
  std::optional<ServiceError> failure;
  WebRequest request = WebRequest::parse(exchange->target());
  try {
    co_await route(exchange, std::move(request));
  } catch (const ServiceError& error) {
    failure = error;
  }
  if (!failure) co_return;
  // What has no words for people, or more than words for programs, is answered as everywhere else.
  if (exchange->answerBegun() || !failure->detail().empty() || !failure->fields().empty())
    throw std::move(*failure);
  WebPage page = pages_.failure(failure->status(), failure->text());
  co_await replyPage(std::move(exchange), std::move(page));
}

asio::awaitable<void> WebEndpoint::route(std::shared_ptr<Exchange> exchange, WebRequest request) {
  if (exchange->method() == "POST")
    co_return co_await post(std::move(exchange), std::move(request));
  if (sessions_.find(exchange->field("Cookie"), secondsNow()).empty())
    co_return co_await askToSignIn(std::move(exchange), std::move(request));
  // Why the path is not acceptable is said by who parses it for everybody.
  if (!request.hasAcceptablePath) throw badRequest("the address is malformed");
  const bool isCanonical =
      !request.hasArrived && (!request.hasTrailingSlash || request.path.isRoot());
  if (!isCanonical) {
    std::string target = request.target();
    co_return co_await redirect(std::move(exchange), 302, std::move(target), {});
  }
  co_await open(std::move(exchange), std::move(request));
}

asio::awaitable<void> WebEndpoint::asset(std::shared_ptr<Exchange> exchange) {
  const std::string_view target = exchange->target();
  const std::size_t question = std::min(target.find('?'), target.size());
  constexpr std::string_view kFolder = "/web/";
  const WebAsset* found = webAsset(target.substr(kFolder.size(), question - kFolder.size()));
  if (found == nullptr) throw notFound();
  const std::string tag = '"' + found->version + '"';
  const bool namesVersion = target.substr(std::min(question + 1, target.size())) == found->version;
  Reply reply;
  reply.fields = {
      {"ETag", tag},
      {"Cache-Control", namesVersion ? "public, max-age=31536000, immutable" : "public, no-cache"},
      {"X-Content-Type-Options", "nosniff"},
      {"Cross-Origin-Resource-Policy", "same-origin"},
      {"Content-Security-Policy", "default-src 'none'; sandbox"}};
  if (isKnownVersion(*exchange, tag)) {
    reply.status = 304;
  } else {
    reply.contentType = found->contentType;
    reply.body = found->contents;
  }
  co_await exchange->reply(std::move(reply));
}

asio::awaitable<void> WebEndpoint::redirect(std::shared_ptr<Exchange> exchange, unsigned status,
                                            std::string target, std::string cookie) {
  Reply reply;
  reply.status = status;
  // Always a path of this service's own, whatever the request was.
  reply.fields = {{"Location", pages_.base() + target}, {"Cache-Control", "no-store"}};
  if (!cookie.empty()) reply.fields.emplace_back("Set-Cookie", std::move(cookie));
  co_await exchange->reply(std::move(reply));
}

asio::awaitable<void> WebEndpoint::replyPage(std::shared_ptr<Exchange> exchange, WebPage page) {
  Reply reply;
  reply.status = page.status;
  reply.contentType = "text/html; charset=utf-8";
  reply.body = std::move(page.html);
  reply.fields = {{"Cache-Control", "private, no-store"},
                  {"Content-Security-Policy", std::move(page.policy)},
                  {"X-Content-Type-Options", "nosniff"},
                  // Nothing for other origins. With "no-referrer" a browser would also hide the
                  // Origin of the page's own forms, and that is what `comesFromOwnPage` asks for.
                  {"Referrer-Policy", "same-origin"},
                  {"Cross-Origin-Opener-Policy", "same-origin"},
                  {"Cross-Origin-Resource-Policy", "same-origin"}};
  co_await exchange->reply(std::move(reply));
}

// --------------------------------------------------------------------------------------- signing in

std::string WebEndpoint::cookie(std::string_view value, std::int64_t lifetimeSeconds) const {
  // For "/open" only: the interface and the storage, which others share this origin with, know
  // their callers by other means and need not see it. Strict: no other site makes a browser send it
  // along; see askToSignIn for who follows a link.
  const bool isSecure = parts_.options.publicURL.value_or("").starts_with("https://");
  return fmt::format("{}={}; Path={}/open; Max-Age={}; HttpOnly; SameSite=Strict{}",
                     sessions_.cookieName(), value, pages_.base(), lifetimeSeconds,
                     isSecure ? "; Secure" : "");
}

/// Whether a form was sent from a page of this service. Browsers say so where they trust the
/// connection (TLS, or this machine), and with every form they name the origin.
bool WebEndpoint::comesFromOwnPage(const Exchange& exchange) const {
  const std::string_view site = exchange.field("Sec-Fetch-Site");
  if (!site.empty()) return site == "same-origin";
  const std::string_view sender = authorityOf(exchange.field("Origin"));
  if (sender.empty()) return false;
  return sender == exchange.field("Host") ||
         sender == authorityOf(parts_.options.publicURL.value_or(""));
}

asio::awaitable<void> WebEndpoint::askToSignIn(std::shared_ptr<Exchange> exchange,
                                               WebRequest request) {
  // Who follows a link from another site arrives without the cookie, signed in or not. A page of our
  // own that goes on to the same address makes the browser bring it. That happens once: the address
  // then says so. It gives other sites nothing: what is brought about is the sight of a page, as
  // with the link itself; bytes of files, and forms, are not sent on.
  const std::string_view site = exchange->field("Sec-Fetch-Site");
  const bool mayComeFromElsewhere = site.empty() || site == "cross-site";
  const bool isPage = request.view == WebRequest::View::page;
  WebPage page = isPage && mayComeFromElsewhere && !request.hasArrived
                     ? pages_.arrival(request)
                     : pages_.signIn(request, SignInTrouble::none);
  co_await replyPage(std::move(exchange), std::move(page));
}

asio::awaitable<void> WebEndpoint::post(std::shared_ptr<Exchange> exchange, WebRequest request) {
  if (!comesFromOwnPage(*exchange)) throw ServiceError(403, "the form was sent from another site");
  constexpr std::string_view kForm = "application/x-www-form-urlencoded";
  if (!exchange->field("Content-Type").starts_with(kForm))
    throw ServiceError(415, "the form has another type");
  const std::string form = co_await exchange->readWholeBody(kMaxFormBytes);
  const std::string action = formField(form, "action").value_or("");
  if (action == "sign-out") {
    const std::string_view session = sessions_.find(exchange->field("Cookie"), secondsNow());
    sessions_.end(session, secondsNow());
    std::string expired = cookie("", 0);
    co_return co_await redirect(std::move(exchange), 303, "/open/", std::move(expired));
  }
  if (action != "sign-in") throw badRequest("the form is unknown");
  std::string token = formField(form, "token").value_or("");
  co_await signIn(std::move(exchange), std::move(request), std::move(token));
}

asio::awaitable<void> WebEndpoint::signIn(std::shared_ptr<Exchange> exchange, WebRequest request,
                                          std::string token) {
  const asio::ip::address caller = callerOf(*exchange);
  if (!limiter_.take(caller, SignInLimiter::Clock::now())) {
    WebPage refused = pages_.signIn(request, SignInTrouble::tooOften);
    co_return co_await replyPage(std::move(exchange), std::move(refused));
  }
  if (parts_.token.is(token)) {
    limiter_.giveBack(caller);
    std::string begun = cookie(sessions_.begin(secondsNow()), WebSessions::kLifetime.count());
    std::string target = request.target();
    co_return co_await redirect(std::move(exchange), 303, std::move(target), std::move(begun));
  }
  serviceLog().write(platform::LogLevel::standard, "a wrong token was entered at %{public}s",
                     caller.to_string());
  // Only this answer waits; no thread does.
  asio::steady_timer pause(co_await asio::this_coro::executor, parts_.options.timeouts.wrongToken);
  co_await pause.async_wait(asio::use_awaitable);
  WebPage again = pages_.signIn(request, SignInTrouble::wrongToken);
  co_await replyPage(std::move(exchange), std::move(again));
}

// ------------------------------------------------------------------------------------ what is shown

asio::awaitable<void> WebEndpoint::open(std::shared_ptr<Exchange> exchange, WebRequest request) {
  const ItemAttributes present =
      co_await parts_.fileThreads.run([&] { return parts_.tree.attributes(request.path); });
  if (present.kind == ItemKind::folder)
    co_return co_await folder(std::move(exchange), std::move(request));
  if (present.kind != ItemKind::file) throw notFound();
  if (request.view == WebRequest::View::page)
    co_return co_await file(std::move(exchange), std::move(request));
  co_await contents(std::move(exchange), std::move(request));
}

asio::awaitable<void> WebEndpoint::folder(std::shared_ptr<Exchange> exchange, WebRequest request) {
  std::optional<EntryPage> page;
  co_await parts_.fileThreads.run([&] {
    page.emplace(parts_.tree.openFolder(request.path), request.sorting, request.window,
                 kPageEntries);
  });
  for (bool more = true; more;) {
    more = co_await parts_.fileThreads.run([&] {
      const bool unfinished = page->readSome(kEntriesAtOnce);
      // One that was removed meanwhile may have been emptied before its last entries were read.
      if (!unfinished && !parts_.tree.holds(page->folder())) throw notFound();
      return unfinished;
    });
  }
  const EntryPage::Result result = co_await parts_.fileThreads.run([&] { return page->finish(); });
  WebPage html = pages_.folder(request, result);
  co_await replyPage(std::move(exchange), std::move(html));
}

asio::awaitable<void> WebEndpoint::file(std::shared_ptr<Exchange> exchange, WebRequest request) {
  ShownFile shown;
  shown.preview = previewOf(request.path.name());
  co_await parts_.fileThreads.run([&] {
    const OpenedFile opened = openContents(parts_.tree, request.path);
    shown.attributes = opened.attributes;
    if (shown.preview.kind != PreviewKind::none || opened.attributes.sizeBytes == 0) return;
    std::string beginning(kShownTextBytes, '\0');
    const ssize_t count = ::pread(opened.file.get(), beginning.data(), beginning.size(), 0);
    if (count < 0) throw fileError(errno, "read");
    beginning.resize(static_cast<std::size_t>(count));
    auto text = shownText(beginning, opened.attributes.sizeBytes > beginning.size());
    if (!text) return;
    shown.preview.kind = PreviewKind::text;
    shown.text = std::move(*text);
  });
  WebPage html = pages_.file(request, shown);
  co_await replyPage(std::move(exchange), std::move(html));
}

asio::awaitable<void> WebEndpoint::contents(std::shared_ptr<Exchange> exchange,
                                            WebRequest request) {
  OpenedFile opened =
      co_await parts_.fileThreads.run([&] { return openContents(parts_.tree, request.path); });
  const FilePreview preview = previewOf(request.path.name());
  const bool isShown =
      request.view == WebRequest::View::contents && preview.kind != PreviewKind::none;
  const bool isPDF = isShown && preview.kind == PreviewKind::pdf;
  const std::string tag = entityTagOf(opened.attributes);
  if (isKnownVersion(*exchange, tag)) {
    Reply unchanged{.status = 304, .contentType = {}, .body = {}, .fields = {}};
    unchanged.fields = {{"ETag", tag}, {"Cache-Control", "private, no-cache"}};
    co_return co_await exchange->reply(std::move(unchanged));
  }
  Fields fields{
      // Kept by the browser, but asked about each time: who has signed out is not answered.
      {"Cache-Control", "private, no-cache"},
      {"Content-Disposition",
       contentDisposition(isShown ? "inline" : "attachment", request.path.name())},
      {"X-Content-Type-Options", "nosniff"},
      // A sandbox has an origin of its own and runs no script. Browsers have no PDF viewer inside a
      // sandbox; their viewers run apart from the page's origin anyway.
      {"Content-Security-Policy",
       isPDF ? "default-src 'none'; frame-ancestors 'self'" : "default-src 'none'; sandbox"},
      {"Referrer-Policy", "no-referrer"},
      {"Cross-Origin-Resource-Policy", "same-origin"}};
  std::string contentType(isShown ? preview.contentType : "application/octet-stream");
  co_await replyContents(std::move(exchange), std::move(opened), std::move(contentType),
                         std::move(fields), &parts_.fileThreads);
}

}  // namespace kestrune::service
