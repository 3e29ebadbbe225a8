#include "service/FilesEndpoints.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "service/Listing.h"
#include "service/RequestBody.h"
#include "service/ServiceError.h"
#include "service/ServiceLog.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
using platform::Json;

/// The memory that a listing needs, whatever its length.
constexpr std::size_t kListingPieceBytes = 128U << 10U;

}  // namespace

asio::awaitable<void> FilesEndpoints::handle(Endpoint endpoint,
                                             std::shared_ptr<Exchange> exchange) {
  switch (endpoint) {
    case Endpoint::list:
      co_return co_await list(std::move(exchange));
    case Endpoint::presignDownload:
      co_return co_await presignDownload(std::move(exchange));
    default:
      throw notFound();
  }
}

std::string FilesEndpoints::signedURL(const Exchange& exchange, const StorageGrant& grant) const {
  // The address comes from the operator or from the socket itself. A request's Host field is the
  // client's word and would let anyone who can make a client send a request also choose where its
  // contents go.
  const std::string base = parts_.options.publicURL.value_or("http://" + exchange.localAuthority());
  return base + parts_.signer.sign(grant, std::chrono::system_clock::now());
}

asio::awaitable<void> FilesEndpoints::list(std::shared_ptr<Exchange> exchange) {
  const RemotePath path = RemotePath::parse(pathOfQuery(exchange->target()));
  FileDescriptor folder =
      co_await parts_.fileThreads.run([&] { return parts_.tree.openFolder(path); });
  Listing listing(std::move(folder), path, parts_.types);
  Reply reply;
  reply.contentType = "application/json";
  std::string piece;
  piece.reserve(kListingPieceBytes + 1024);
  const auto makePiece = [&] { return listing.next(piece, kListingPieceBytes); };
  bool more = co_await parts_.fileThreads.run(makePiece);
  if (!more) {
    reply.body = std::move(piece);
    co_await exchange->reply(std::move(reply));
  } else {
    co_await exchange->beginStream(std::move(reply));
    while (more) {
      co_await exchange->writePiece(piece);
      piece.clear();
      more = co_await parts_.fileThreads.run(makePiece);
    }
    co_await exchange->writePiece(piece);
    co_await exchange->finishStream();
  }
  if (listing.refusedNames() > 0) {
    serviceLog().write(platform::LogLevel::standard,
                       "a listing left out %ld names that are not acceptable",
                       listing.refusedNames());
  }
}

asio::awaitable<void> FilesEndpoints::presignDownload(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const RemotePath path = body.path("path");
  const ItemAttributes present =
      co_await parts_.fileThreads.run([&] { return parts_.tree.attributes(path); });
  if (present.kind == ItemKind::folder) throw conflict("the item is a folder");
  if (present.kind != ItemKind::file) throw notFound();
  Json answer{{"url", signedURL(*exchange, {StorageKind::tree, "GET", path.text()})},
              {"method", "GET"},
              {"path", path.text()}};
  co_await exchange->replyJson(std::move(answer));
}

}  // namespace kestrune::service
