// One PUT of a whole file to a pre-signed address: the way in which small new files and all changed
// contents reach the storage.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"

namespace kestrune {

/// Sends `file` to `address`, streamed, with an idle time-out of 60 seconds and no header of its
/// own: the address carries the permission. Throws NSFileProviderError serverUnreachable for an
/// unusable address and for an answer of 400 or more (what the storage holds is unknown then), and
/// the session's error unchanged. Callable on any task.
platform::Task<void> putFile(std::shared_ptr<platform::URLSession> session, std::string address,
                             std::filesystem::path file);

}  // namespace kestrune
