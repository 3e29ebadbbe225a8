// Fetches the whole contents of one file: a pre-signed address from the service, a download from it
// into the temporary directory, up to four attempts with growing pauses, each with a fresh address.
// Progress goes to the NSProgress that the system watches and to the status store.
//
// Threads: the task runs on the shared executor; several downloads may run at once.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"

namespace kestrune {

/// What one download works with. All of it is kept until the task ends.
struct WholeFileDownload {
  /// The remote path of the file.
  std::string path;
  /// Total 100; held at 99 until the file has been handed over. Cancelling it does not stop the
  /// download.
  platform::NSProgressPtr progress;
  std::shared_ptr<platform::URLSession> session;
  std::shared_ptr<platform::Sleeper> sleeper;
  /// Called exactly once, from the task: with the file (the receiver's from then on) and its item,
  /// or with an error.
  platform::NSFileProviderReplicatedExtension::ContentsHandler completionHandler;
};

/// Runs one download to its end. The task fails with nothing: every error goes to the completion
/// handler, as it is; NSFileProviderError serverUnreachable stands for an unusable address and for
/// a storage answer of 400 or more.
platform::Task<void> runWholeFileDownload(WholeFileDownload download);

}  // namespace kestrune
