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

std::string signedURL(const Parts& parts, const Exchange& exchange, const StorageGrant& grant) {
  // The address comes from the operator or from the socket itself. A request's Host field is the
  // client's word and would let anyone who can make a client send a request also choose where its
  // contents go.
  const std::string base = parts.options.publicURL.value_or("http://" + exchange.localAuthority());
  return base + parts.signer.sign(grant, std::chrono::system_clock::now());
}

asio::awaitable<void> FilesEndpoints::handle(Endpoint endpoint,
                                             std::shared_ptr<Exchange> exchange) {
  switch (endpoint) {
    case Endpoint::list:
      co_return co_await list(std::move(exchange));
    case Endpoint::remove:
      co_return co_await remove(std::move(exchange));
    case Endpoint::makeFolder:
      co_return co_await makeFolder(std::move(exchange));
    case Endpoint::move:
      co_return co_await move(std::move(exchange));
    case Endpoint::notify:
      co_return co_await notify(std::move(exchange));
    case Endpoint::presignDownload:
      co_return co_await presignDownload(std::move(exchange));
    case Endpoint::presignUpload:
      co_return co_await presignUpload(std::move(exchange));
    default:
      throw notFound();
  }
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
  bool streaming = false;
  for (bool more = true; more;) {
    piece.clear();
    more = co_await parts_.fileThreads.run([&] {
      const bool unfinished = listing.next(piece, kListingPieceBytes);
      // A folder that was removed meanwhile may have been emptied before its last entries were
      // read. No client may take the others for all.
      if (!unfinished && !parts_.tree.holds(listing.folder())) throw notFound();
      return unfinished;
    });
    if (!more && !streaming) {
      reply.body = std::move(piece);
      co_await exchange->reply(std::move(reply));
      break;
    }
    if (!streaming) co_await exchange->beginStream(reply);
    streaming = true;
    co_await exchange->writePiece(piece);
  }
  if (streaming) co_await exchange->finishStream();
  if (listing.refusedNames() > 0) {
    serviceLog().write(platform::LogLevel::standard,
                       "a listing left out %ld names that are not acceptable",
                       listing.refusedNames());
  }
}

asio::awaitable<void> FilesEndpoints::remove(std::shared_ptr<Exchange> exchange) {
  const RemotePath path = RemotePath::parse(pathOfQuery(exchange->target()));
  const bool trashed = co_await parts_.fileThreads.run([&] { return parts_.staging.remove(path); });
  parts_.changes.announce();
  if (trashed) parts_.housekeeper.wake();
  co_await exchange->replyJson(Json::object());
}

asio::awaitable<void> FilesEndpoints::makeFolder(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const RemotePath path = body.path("path");
  co_await parts_.fileThreads.run([&] { parts_.tree.makeFolder(path); });
  parts_.changes.announce();
  co_await exchange->replyJson(Json::object());
}

asio::awaitable<void> FilesEndpoints::move(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const RemotePath source = body.path("src");
  const RemotePath destination = body.path("dst");
  co_await parts_.fileThreads.run([&] { parts_.tree.move(source, destination); });
  parts_.changes.announce();
  co_await exchange->replyJson(Json::object());
}

asio::awaitable<void> FilesEndpoints::notify(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const RemotePath path = body.path("path");
  const std::uint64_t size = body.decimal("size");
  const ItemAttributes present =
      co_await parts_.fileThreads.run([&] { return parts_.tree.attributes(path); });
  if (present.kind != ItemKind::file) throw notFound();
  // The upload itself was complete when it was answered, so nothing is to be done here; a client
  // that means another size than what lies there should know.
  if (present.sizeBytes != size) throw conflict("the file has another size");
  co_await exchange->replyJson(Json::object());
}

asio::awaitable<void> FilesEndpoints::presignDownload(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const RemotePath path = body.path("path");
  const ItemAttributes present =
      co_await parts_.fileThreads.run([&] { return parts_.tree.attributes(path); });
  if (present.kind == ItemKind::folder) throw conflict("the item is a folder");
  if (present.kind != ItemKind::file) throw notFound();
  co_await replyPresigned(std::move(exchange), path, "GET");
}

asio::awaitable<void> FilesEndpoints::presignUpload(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const RemotePath path = body.path("path");
  co_await parts_.fileThreads.run([&] { parts_.tree.checkPlace(path); });
  co_await replyPresigned(std::move(exchange), path, "PUT");
}

asio::awaitable<void> FilesEndpoints::replyPresigned(std::shared_ptr<Exchange> exchange,
                                                     RemotePath path, std::string method) {
  const StorageGrant grant{StorageKind::tree, method, path.text()};
  Json answer{
      {"url", signedURL(parts_, *exchange, grant)}, {"method", method}, {"path", path.text()}};
  co_await exchange->replyJson(std::move(answer));
}

}  // namespace kestrune::service
