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

/// Writes the whole body of `exchange` to the target that `makeTarget`, called once on a file
/// thread, names. Disk space is reserved, and the client told to go on, only then, so that a full
/// disk is answered before the body is sent. At most 1 MiB is held in memory. Fails like
/// Exchange::readBody and Draft; 413 for a body beyond kMaxUploadBytes. The target is then released
/// on a file thread, because removing a long draft takes its time.
boost::asio::awaitable<Received> receiveUpload(std::shared_ptr<Exchange> exchange,
                                               FileThreads* fileThreads,
                                               std::function<UploadTarget()> makeTarget);

}  // namespace kestrune::service
