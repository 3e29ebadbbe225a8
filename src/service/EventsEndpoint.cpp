#include "service/EventsEndpoint.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;

/// Often enough for the proxies between, which close what is silent for a minute.
constexpr auto kKeepAlive = std::chrono::seconds(15);
/// Many changes in a row are one event for each of these.
constexpr auto kLeastInterval = std::chrono::milliseconds(100);

constexpr std::string_view kHello = ": hello\n\n";
constexpr std::string_view kStillHere = ": keep-alive\n\n";
constexpr std::string_view kChange = "event: change\ndata: {}\n\n";

}  // namespace

asio::awaitable<void> EventsEndpoint::handle(std::shared_ptr<Exchange> exchange) {
  const asio::any_io_executor executor = co_await asio::this_coro::executor;
  const auto listener = parts_.changes.listen(executor);
  if (!listener) throw ServiceError(503, "too many listeners");
  exchange->closeAfterwards();
  Reply head;
  head.contentType = "text/event-stream";
  head.fields = {{"Cache-Control", "no-store"}};
  co_await exchange->beginStream(std::move(head));
  co_await exchange->writePiece(kHello);
  asio::steady_timer pause(executor);
  for (;;) {
    const Changes::Wake wake = co_await listener->wait(kKeepAlive);
    if (wake == Changes::Wake::ended) break;
    co_await exchange->writePiece(wake == Changes::Wake::changed ? kChange : kStillHere);
    pause.expires_after(kLeastInterval);
    co_await pause.async_wait(asio::use_awaitable);
  }
  co_await exchange->finishStream();
}

}  // namespace kestrune::service
