// Deletes an item on the remote store: one DELETE request. What the service no longer has counts as
// deleted, so that nobody keeps asking for it.
//
// Threads: the task runs on the shared executor.
#pragma once

#include <string>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/tasks/Task.h"

namespace kestrune {

/// Deletes `path`. The task fails with nothing; `completionHandler` is called exactly once, from
/// the task, with the error as it is. An error whose description contains "404" or "not found" is
/// none. `progress` (total 1) is 1 after a success.
platform::Task<void> runDeletion(
    std::string path, platform::NSProgressPtr progress,
    platform::NSFileProviderReplicatedExtension::DoneHandler completionHandler);

}  // namespace kestrune
