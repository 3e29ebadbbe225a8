// Makes a new file or folder on the remote store. Files below 16 MiB travel in one PUT to a
// pre-signed address and are then imported at their path; larger ones in parts.
//
// Threads: the task runs on the shared executor; several creations may run at once.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"

namespace kestrune {

/// Below this many bytes a new file is sent in one request.
inline constexpr std::int64_t kSingleUploadLimitBytes = 16'777'216;

/// What one creation works with. All of it is kept until the task ends.
struct Creation {
  std::string name;
  /// The remote path of the new item.
  std::string path;
  bool isDir = false;
  /// The local file with the contents; not used for folders.
  std::optional<std::filesystem::path> contents;
  /// Total 100; the parts of a large file move it, all else goes from 0 to 100 at once.
  platform::NSProgressPtr progress;
  /// When the system asked.
  std::chrono::steady_clock::time_point start;
  std::shared_ptr<platform::URLSession> session;
  /// Called exactly once, from the task.
  platform::NSFileProviderReplicatedExtension::ChangeHandler completionHandler;
};

/// Runs one creation to its end. The task fails with nothing: every error goes to the completion
/// handler, as it is. NSFileProviderError noSuchItem: a file without contents; serverUnreachable:
/// an unusable address, or a storage answer of 400 or more. Nothing is tried twice.
platform::Task<void> runCreation(Creation creation);

}  // namespace kestrune
