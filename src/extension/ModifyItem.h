// Carries a local change to the remote store: first a change of place (one move on the service),
// then new contents (one PUT to a pre-signed address, whatever the size, and word of it to the
// service). Other changes have no remote effect. The last writer wins: the version that the change
// was based on is not looked at.
//
// Threads: the task runs on the shared executor. Several changes may run at once; nothing orders
// two changes of one item.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"

namespace kestrune {

/// What one change works with. All of it is kept until the task ends.
struct Modification {
  /// Where the item lay when the system asked.
  std::string path;
  /// The item with its new values, under its old identifier.
  platform::NSFileProviderItemPtr item;
  platform::NSFileProviderItemFields changedFields = platform::NSFileProviderItemFields::none;
  /// The local file with the new contents. Without it a change of contents is none.
  std::optional<std::filesystem::path> contents;
  /// Total 100; it goes from 0 to 100 at once.
  platform::NSProgressPtr progress;
  std::shared_ptr<platform::URLSession> session;
  /// Called exactly once, from the task.
  platform::NSFileProviderReplicatedExtension::ChangeHandler completionHandler;
};

/// Runs one change to its end. The task fails with nothing: every error goes to the completion
/// handler, as it is; NSFileProviderError serverUnreachable stands for an unusable address and for
/// a storage answer of 400 or more. A move stays done when the upload after it fails. Nothing is
/// tried twice and nothing is logged.
platform::Task<void> runModification(Modification modification);

}  // namespace kestrune
