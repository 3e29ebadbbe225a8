#include "service/StorageEndpoint.h"

#include <fmt/format.h>

#include <utility>

#include "service/ByteRange.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;

/// The Range field, unless If-Range says that it was meant for other contents.
std::string_view rangeOf(const Exchange& exchange, const std::string& tag,
                         const std::string& lastModified) {
  const std::string_view condition = exchange.field("If-Range");
  const bool holds =
      condition.empty() || condition == tag || (!lastModified.empty() && condition == lastModified);
  return holds ? exchange.field("Range") : std::string_view();
}

}  // namespace

std::string entityTagOf(const ItemAttributes& attributes) {
  return fmt::format("\"{:x}-{:x}-{:x}.{:x}\"", attributes.inode, attributes.sizeBytes,
                     attributes.modified.seconds, attributes.modified.nanoseconds);
}

asio::awaitable<void> StorageEndpoint::handle(std::shared_ptr<Exchange> exchange) {
  const StorageGrant grant = parts_.signer.verify(exchange->method(), exchange->target(),
                                                  std::chrono::system_clock::now());
  if (grant.kind == StorageKind::tree && grant.method == "GET") {
    co_return co_await download(std::move(exchange), RemotePath::parse(grant.key));
  }
  throw notFound();
}

asio::awaitable<void> StorageEndpoint::download(std::shared_ptr<Exchange> exchange,
                                                RemotePath path) {
  FileReply reply;
  ItemAttributes attributes;
  reply.file = co_await parts_.fileThreads.run([&] {
    FileDescriptor file = parts_.tree.openFile(path);
    attributes = attributesOf(file);
    return file;
  });
  const std::string tag = entityTagOf(attributes);
  const std::string lastModified = httpDate(attributes.modified.seconds);
  reply.fields = {{"ETag", tag},
                  {"Accept-Ranges", "bytes"},
                  {"Cache-Control", "private, no-cache"},
                  // What users stored is shown by nobody in this origin's name.
                  {"X-Content-Type-Options", "nosniff"},
                  {"Content-Security-Policy", "sandbox"}};
  if (!lastModified.empty()) reply.fields.emplace_back("Last-Modified", lastModified);
  const ByteRange range =
      parseByteRange(rangeOf(*exchange, tag, lastModified), attributes.sizeBytes);
  if (range.answer == ByteRange::Answer::unsatisfiable) {
    throw ServiceError(416, "the range lies outside the file")
        .with("Content-Range", fmt::format("bytes */{}", attributes.sizeBytes));
  }
  if (range.answer == ByteRange::Answer::partial) {
    reply.status = 206;
    reply.fields.emplace_back("Content-Range",
                              fmt::format("bytes {}-{}/{}", range.offset,
                                          range.offset + range.length - 1, attributes.sizeBytes));
  }
  reply.offset = range.offset;
  reply.length = range.length;
  reply.contentType = parts_.types.typeOf(path.name()).value_or("application/octet-stream");
  co_await exchange->replyFile(std::move(reply), &parts_.fileThreads);
}

}  // namespace kestrune::service
