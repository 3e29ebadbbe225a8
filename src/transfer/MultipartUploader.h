// Sends a large file to the store in parts of 10 MiB, each with a PUT to a pre-signed address of
// its own, at most eight at a time; then has the service put the parts together and import them at
// the file's remote path.
//
//     init -> open -> parts -> complete -> import -> done
//                \_______________________________/ any failure -> abort -> failed
//
// Once an upload is open, every failure sends exactly one abort, which may take five seconds before
// the failure is reported all the same. Nothing is tried twice.
//
// Memory: at most eight parts, 80 MiB: a part is read just before it is sent and released after it.
//
// Threads: `upload` may be awaited on any task; its part tasks run side by side on the shared
// executor, where the progress is moved. Files are read on a thread of the upload's own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "api/KestruneAPI.h"
#include "platform/net/URLSession.h"
#include "platform/progress/NSProgress.h"
#include "platform/tasks/Task.h"
#include "transfer/MPError.h"

namespace kestrune {

class MultipartUploader {
 public:
  using PartResult = KestruneAPI::UploadedPart;

  static constexpr std::int64_t kPartBytes = 10'485'760;
  static constexpr std::int64_t kPartsInFlight = 8;

  MultipartUploader() = delete;

  /// Uploads the first `size` bytes of `srcURL` as the file `destPath`. `progress` has a total of
  /// 100: it rises with the parts to at most 99, and to 100 when the file has been imported.
  /// `session` carries the parts; the service's calls go their own way.
  ///
  /// Throws MPError; and unchanged the service's errors for a part's address, the session's for its
  /// transport, and the file's. The outcome of a failed `completeFailed` is unknown: the file may
  /// have been imported. Ends the process if the part count of `size` does not fit 64 bits.
  static platform::Task<void> upload(std::filesystem::path srcURL, std::int64_t size,
                                     std::string destPath,
                                     std::shared_ptr<platform::NSProgress> progress,
                                     std::shared_ptr<platform::URLSession> session);
};

}  // namespace kestrune
