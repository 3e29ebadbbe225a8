// Hands on a byte range of one file as it arrives, without a local file and without reading ahead: the host decides how
// much is wanted.
//
// The first range of a version takes three requests: the parent's listing, which says whether the file still is of that
// version, an address, and the bytes. The next ones take one, as long as the storage gives them the same entity tag
// (ContentAddresses). A failed attempt is repeated up to five times with growing pauses, from the first missing byte on
// and with a fresh address; a listing that fails is the answer.
//
// Memory: what one URLByteStream buffers, the receiver's where it lends some. A receiver that is slow stops the network.
//
// Threads: the task runs on the shared executor; the receiver is called there and may block for the disk. Several streams
// may run at once, also of one file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/file_provider/ContentStreaming.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"
#include "transfer/ContentAddresses.h"

namespace kestrune {

/// What one stream works with. All of it is kept until the task ends.
struct ContentStream {
  /// The remote path of the file.
  std::string path;
  /// Of the contents, as FileProviderItem tells it.
  std::string version;
  /// Within the file, and not empty.
  platform::NSRange range;
  /// In the status store.
  std::string transferId;
  /// Counts bytes. Looked at between two pieces: cancelling it ends the stream.
  platform::NSProgressPtr progress;
  std::shared_ptr<platform::URLSession> session;
  std::shared_ptr<platform::Sleeper> sleeper;
  std::shared_ptr<ContentAddresses> addresses;
  platform::ContentStreaming::BytesHandler bytes;
  /// Called exactly once, from the task.
  platform::ContentStreaming::EndHandler completionHandler;
};

/// Runs one stream to its end. The task fails with nothing: every error goes to the completion handler. NSFileProviderError
/// noSuchItem: the parent's listing does not name the file; versionNoLongerAvailable: it is of another version now;
/// serverUnreachable: an unusable address, or an answer of the storage that is not the range that was asked for.
platform::Task<void> runContentStream(ContentStream stream);

}  // namespace kestrune
