#include "extension/SingleUpload.h"

#include <chrono>
#include <utility>

#include "platform/file_provider/NSFileProviderError.h"
#include "platform/net/URL.h"

namespace kestrune {

using platform::NSFileProviderError;

namespace {

constexpr std::chrono::seconds kPutTimeout(60);
constexpr int kFirstErrorStatus = 400;

}  // namespace

platform::Task<void> putFile(std::shared_ptr<platform::URLSession> session, std::string address,
                             std::filesystem::path file) {
  auto url = platform::URL::parse(address);
  if (!url) throw NSFileProviderError(NSFileProviderError::serverUnreachable);
  platform::URLRequest request(std::move(*url));
  request.httpMethod = "PUT";
  request.timeoutInterval = kPutTimeout;
  const auto reply = co_await session->uploadFromFile(std::move(request), std::move(file));
  if (reply.response.statusCode >= kFirstErrorStatus) {
    throw NSFileProviderError(NSFileProviderError::serverUnreachable);
  }
}

}  // namespace kestrune
