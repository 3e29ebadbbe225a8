// Media types by filename extension, remembered: a listing asks for each of its entries.
//
// Threads: callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/values/Mutex.h"

namespace kestrune::service {

class MimeTypes {
 public:
  /// The media type registered for the extension of the file name `name`; nothing for a name
  /// without a registered extension. The reference stays valid as long as this object.
  const std::optional<std::string>& typeOf(std::string_view name);

 private:
  platform::Mutex mutex_;
  /// By extension. Elements stay where they are while others are added.
  std::unordered_map<std::string, std::optional<std::string>> known_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::service
