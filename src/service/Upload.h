// Receiving the body of a PUT into a draft.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <memory>

#include "service/Draft.h"
#include "service/Exchange.h"
#include "service/FileThreads.h"

namespace kestrune::service {

/// Where the body goes.
struct UploadTarget {
  std::shared_ptr<Draft> draft;
  std::uint64_t offset = 0;
};

struct Received {
  UploadTarget target;
  std::uint64_t length = 0;
};

/// What is done with an upload, on a file thread.
struct UploadSteps {
  /// Names the target; called once.
  std::function<UploadTarget()> begin;
  /// All has been received. What it throws fails the upload.
  std::function<void(Received& received)> end;
};

/// Writes the whole body of `exchange` to the target that `begin` names. Disk space is reserved, and
/// the client told to go on, only then, so that a full disk is answered before the body is sent. A
/// body of up to 1 MiB, which is all that is held in memory, is received first: then everything is
/// done in one go on the file thread. Fails like Exchange::readBody and Draft; 413 for a body beyond
/// kMaxUploadBytes. The target is then released on a file thread, because removing a long draft takes
/// its time.
boost::asio::awaitable<void> receiveUpload(std::shared_ptr<Exchange> exchange,
                                           FileThreads* fileThreads, UploadSteps steps);

}  // namespace kestrune::service
