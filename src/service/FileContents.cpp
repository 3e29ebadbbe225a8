#include "service/FileContents.h"

#include <fmt/format.h>

#include <iterator>
#include <string_view>

#include "service/ByteRange.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

/// The Range field, unless If-Range says that it was meant for other contents.
std::string_view rangeOf(const Exchange& exchange, const std::string& tag,
                         const std::string& lastModified) {
  const std::string_view condition = exchange.field("If-Range");
  const bool holds =
      condition.empty() || condition == tag || (!lastModified.empty() && condition == lastModified);
  return holds ? exchange.field("Range") : std::string_view();
}

}  // namespace

OpenedFile openContents(const Tree& tree, const RemotePath& path) {
  OpenedFile opened{tree.openFile(path), {}};
  opened.attributes = attributesOf(opened.file);
  return opened;
}

std::string entityTagOf(const ItemAttributes& attributes) {
  return fmt::format("\"{:x}-{:x}-{:x}.{:x}\"", attributes.inode, attributes.sizeBytes,
                     attributes.modified.seconds, attributes.modified.nanoseconds);
}

boost::asio::awaitable<void> replyContents(std::shared_ptr<Exchange> exchange, OpenedFile opened,
                                           std::string contentType,
                                           std::vector<std::pair<std::string, std::string>> fields,
                                           FileThreads* fileThreads) {
  FileReply reply;
  const ItemAttributes attributes = opened.attributes;
  const std::string tag = entityTagOf(attributes);
  const std::string lastModified = httpDate(attributes.modified.seconds);
  reply.fields = {{"ETag", tag}, {"Accept-Ranges", "bytes"}};
  std::move(fields.begin(), fields.end(), std::back_inserter(reply.fields));
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
  reply.file = std::move(opened.file);
  reply.offset = range.offset;
  reply.length = range.length;
  reply.contentType = std::move(contentType);
  co_await exchange->replyFile(std::move(reply), fileThreads);
}

}  // namespace kestrune::service
