#include "platform/net/DataSink.h"

#include <algorithm>
#include <utility>

namespace kestrune::platform {

namespace {

// An announced length is believed this far; a longer body grows as it arrives.
constexpr std::int64_t kTrustedReserveBytes = 16 << 20;

}  // namespace

void DataSink::didReceiveResponse(const HTTPURLResponse& response, std::int64_t expectedBytes) {
  reply_.response = response;
  if (expectedBytes > 0)
    reply_.data.reserve(static_cast<std::size_t>(std::min(expectedBytes, kTrustedReserveBytes)));
}

TransferSink::Take DataSink::didReceiveData(std::string_view bytes) {
  if (reply_.data.size() + bytes.size() > maximumBytes_)
    throw URLError(URLError::dataLengthExceedsMaximum);
  reply_.data.append(bytes);
  return Take::taken;
}

void DataSink::didEnd(std::exception_ptr error) {
  if (error) {
    continuation_.fail(std::move(error));
  } else {
    continuation_.resume(std::move(reply_));
  }
}

}  // namespace kestrune::platform
