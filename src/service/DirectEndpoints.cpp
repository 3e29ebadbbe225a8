#include "service/DirectEndpoints.h"

#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "service/FilesEndpoints.h"
#include "service/RequestBody.h"
#include "service/ServiceError.h"
#include "service/StorageEndpoint.h"
#include "service/Time.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
using platform::Json;

std::vector<MultipartUploads::NamedPart> namedParts(const RequestBody& body) {
  std::vector<MultipartUploads::NamedPart> parts;
  for (const Json& element : body.array("parts")) {
    const RequestBody part = RequestBody::of(element);
    const std::int64_t number = part.integer("PartNumber");
    if (number < 1 || number > MultipartUploads::kMaxPartNumber)
      throw badRequest("a part number is out of range");
    parts.push_back({static_cast<int>(number), part.text("Etag")});
  }
  return parts;
}

}  // namespace

bool DirectEndpoints::answers(Endpoint endpoint) {
  switch (endpoint) {
    case Endpoint::directPresignUpload:
    case Endpoint::multipartInit:
    case Endpoint::multipartPartURL:
    case Endpoint::multipartComplete:
    case Endpoint::multipartAbort:
    case Endpoint::import:
      return true;
    default:
      return false;
  }
}

asio::awaitable<void> DirectEndpoints::handle(Endpoint endpoint,
                                              std::shared_ptr<Exchange> exchange) {
  switch (endpoint) {
    case Endpoint::directPresignUpload:
      co_return co_await presign(std::move(exchange));
    case Endpoint::multipartInit:
      co_return co_await init(std::move(exchange));
    case Endpoint::multipartPartURL:
      co_return co_await partURL(std::move(exchange));
    case Endpoint::multipartComplete:
      co_return co_await complete(std::move(exchange));
    case Endpoint::multipartAbort:
      co_return co_await abort(std::move(exchange));
    case Endpoint::import:
      co_return co_await import(std::move(exchange));
    default:
      throw notFound();
  }
}

asio::awaitable<void> DirectEndpoints::presign(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  body.path("path");
  const std::string key = Staging::newName();
  const StorageGrant grant{StorageKind::staged, "PUT", key};
  Json answer{
      {"uploadId", Staging::newName()}, {"url", signedURL(parts_, *exchange, grant)}, {"key", key}};
  co_await exchange->replyJson(std::move(answer));
}

asio::awaitable<void> DirectEndpoints::init(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  body.path("path");
  const MultipartUploads::Opened opened = parts_.uploads.open(secondsNow());
  Json answer{{"uploadId", Staging::newName()}, {"s3UploadId", opened.id}, {"key", opened.key}};
  co_await exchange->replyJson(std::move(answer));
}

asio::awaitable<void> DirectEndpoints::partURL(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const std::string id = body.text("s3UploadId");
  const std::int64_t number = body.integer("partNumber");
  parts_.uploads.check(body.text("key"), id, number);
  const StorageGrant grant{StorageKind::part, "PUT", partKey(id, number)};
  Json answer{{"url", signedURL(parts_, *exchange, grant)}};
  co_await exchange->replyJson(std::move(answer));
}

asio::awaitable<void> DirectEndpoints::complete(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const std::string key = body.text("key");
  const std::string id = body.text("s3UploadId");
  const auto parts = namedParts(body);
  co_await parts_.fileThreads.run([&] { parts_.uploads.complete(key, id, parts); });
  co_await exchange->replyJson(Json::object());
}

asio::awaitable<void> DirectEndpoints::abort(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const std::string key = body.text("key");
  const std::string id = body.text("s3UploadId");
  co_await parts_.fileThreads.run([&] { parts_.uploads.abort(key, id); });
  co_await exchange->replyJson(Json::object());
}

asio::awaitable<void> DirectEndpoints::import(std::shared_ptr<Exchange> exchange) {
  const RequestBody body = co_await RequestBody::read(exchange);
  const std::string key = body.text("key");
  const RemotePath path = body.path("path");
  co_await parts_.fileThreads.run([&] { parts_.staging.import(key, path); });
  parts_.changes.announce();
  co_await exchange->replyJson(Json::object());
}

}  // namespace kestrune::service
