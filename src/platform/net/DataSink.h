// Collects a whole answer in memory and resumes the task that waits for it. Used by URLSession
// alone.
#pragma once

#include "platform/net/Transfer.h"
#include "platform/tasks/Continuation.h"

namespace kestrune::platform {

class DataSink final : public TransferSink {
 public:
  /// A body longer than `maximumBytes` fails the transfer, whatever length was announced.
  DataSink(Continuation<URLReply> continuation, std::uint64_t maximumBytes)
      : continuation_(std::move(continuation)), maximumBytes_(maximumBytes) {}

  long receiveBufferBytes() const override { return 64L << 10U; }
  void didReceiveResponse(const HTTPURLResponse& response, std::int64_t expectedBytes) override;
  Take didReceiveData(std::string_view bytes) override;
  void didEnd(std::exception_ptr error) override;

 private:
  Continuation<URLReply> continuation_;
  std::uint64_t maximumBytes_;
  URLReply reply_;
};

}  // namespace kestrune::platform
