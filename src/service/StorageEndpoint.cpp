#include "service/StorageEndpoint.h"

#include <fmt/format.h>

#include <charconv>
#include <exception>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "service/FileContents.h"
#include "service/ServiceError.h"
#include "service/Time.h"
#include "service/Upload.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;

/// One part's way through the book-keeping of its upload.
class PartInProgress {
 public:
  PartInProgress(MultipartUploads& uploads, const std::string& key,
                 std::optional<std::uint64_t> length)
      : uploads_(uploads), length_(length) {
    std::tie(id_, number_) = parsePartKey(key);
  }

  UploadTarget begin() {
    slot_ = uploads_.beginPart(id_, number_, length_);
    return {std::move(slot_.draft), slot_.offset};
  }
  std::string finish(Received& received) {
    MultipartUploads::Slot slot = slot_;
    slot.draft = std::move(received.target.draft);
    return uploads_.finishPart(id_, slot, received.length, secondsNow());
  }
  void fail() { uploads_.failPart(id_, slot_); }

 private:
  MultipartUploads& uploads_;
  std::optional<std::uint64_t> length_;
  std::string id_;
  int number_ = 0;
  MultipartUploads::Slot slot_;
};

asio::awaitable<void> replyStored(std::shared_ptr<Exchange> exchange, std::string tag) {
  Reply stored;
  stored.fields = {{"ETag", std::move(tag)}};
  co_await exchange->reply(std::move(stored));
}

}  // namespace

std::string partKey(const std::string& uploadId, std::int64_t number) {
  return fmt::format("{}/{}", uploadId, number);
}

std::pair<std::string, int> parsePartKey(const std::string& key) {
  const std::size_t slash = key.find('/');
  int number = 0;
  if (slash == std::string::npos) throw notFound();
  const char* end = key.data() + key.size();
  const auto [parsed, error] = std::from_chars(key.data() + slash + 1, end, number);
  if (error != std::errc() || parsed != end) throw notFound();
  return {key.substr(0, slash), number};
}

asio::awaitable<void> StorageEndpoint::handle(std::shared_ptr<Exchange> exchange) {
  StorageGrant grant = parts_.signer.verify(exchange->method(), exchange->target(),
                                            std::chrono::system_clock::now());
  // Signed are only GET for the tree and PUT for all.
  switch (grant.kind) {
    case StorageKind::tree: {
      RemotePath path = RemotePath::parse(grant.key);
      if (grant.method == "GET") co_return co_await download(std::move(exchange), std::move(path));
      co_return co_await uploadFile(std::move(exchange), std::move(path));
    }
    case StorageKind::staged:
      co_return co_await uploadObject(std::move(exchange), std::move(grant.key));
    case StorageKind::part:
      co_return co_await uploadPart(std::move(exchange), std::move(grant.key));
  }
}

asio::awaitable<void> StorageEndpoint::download(std::shared_ptr<Exchange> exchange,
                                                RemotePath path) {
  OpenedFile opened =
      co_await parts_.fileThreads.run([&] { return openContents(parts_.tree, path); });
  std::vector<std::pair<std::string, std::string>> fields{
      {"Cache-Control", "private, no-cache"},
      // What users stored is shown by nobody in this origin's name.
      {"X-Content-Type-Options", "nosniff"},
      {"Content-Security-Policy", "sandbox"}};
  std::string contentType = parts_.types.typeOf(path.name()).value_or("application/octet-stream");
  co_await replyContents(std::move(exchange), std::move(opened), std::move(contentType),
                         std::move(fields), &parts_.fileThreads);
}

asio::awaitable<void> StorageEndpoint::uploadFile(std::shared_ptr<Exchange> exchange,
                                                  RemotePath path) {
  std::string tag;
  UploadSteps steps;
  steps.begin = [this, &path] {
    parts_.tree.checkPlace(path);
    return UploadTarget{parts_.staging.newDraft()};
  };
  steps.end = [this, &path, &tag](Received& received) {
    // A draft that finds no place is removed on this thread: a long one takes its time.
    const std::shared_ptr<Draft> draft = std::move(received.target.draft);
    parts_.staging.place(*draft, path);
    tag = entityTagOf(attributesOf(draft->file()));
  };
  co_await receiveUpload(exchange, &parts_.fileThreads, std::move(steps));
  parts_.changes.announce();
  co_await replyStored(std::move(exchange), tag);
}

asio::awaitable<void> StorageEndpoint::uploadObject(std::shared_ptr<Exchange> exchange,
                                                    std::string key) {
  std::string tag;
  UploadSteps steps;
  steps.begin = [this] { return UploadTarget{parts_.staging.newDraft()}; };
  steps.end = [this, &key, &tag](Received& received) {
    const std::shared_ptr<Draft> draft = std::move(received.target.draft);
    parts_.staging.keep(*draft, key);
    tag = entityTagOf(attributesOf(draft->file()));
  };
  co_await receiveUpload(exchange, &parts_.fileThreads, std::move(steps));
  co_await replyStored(std::move(exchange), tag);
}

asio::awaitable<void> StorageEndpoint::uploadPart(std::shared_ptr<Exchange> exchange,
                                                  std::string key) {
  PartInProgress part(parts_.uploads, key, exchange->bodyLength());
  std::exception_ptr failure;
  std::string tag;
  UploadSteps steps;
  steps.begin = [&part] { return part.begin(); };
  steps.end = [&part, &tag](Received& received) { tag = part.finish(received); };
  try {
    co_await receiveUpload(exchange, &parts_.fileThreads, std::move(steps));
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    part.fail();
    std::rethrow_exception(failure);
  }
  co_await replyStored(std::move(exchange), fmt::format("\"{}\"", tag));
}

}  // namespace kestrune::service
